// Registration with the file-coordination service: the extension sets itself up, then the instance
// is added to the coordinator. The callbacks carry the count of attempts along.

#include <chrono>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/coordination/QXFileCoordinator.h"
#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"

void DSExtensionDocSource::registerWithFileCoordinatorRetryCount_completion(
    std::int32_t count, qx::Completion<qx::Error> completion) {
  completion = qx::once(std::move(completion));
  if (count == 0) {
    if (completion) {
      qx::WorkQueue::global().async(
          [completion = std::move(completion)] { completion(DSPluginOperationFailedError()); });
    }
    return;
  }
  DS_LOG("[DEBUG] %s", qx::methodName("DSExtensionDocSource", __func__));
  // A request that cannot be begun fails at once; nothing may complete before this function has
  // returned.
  qx::WorkQueue::global().async([self = shared_from_this(), completion = std::move(completion),
                                 count] { self->attemptToRegister(count, completion); });
}

void DSExtensionDocSource::attemptToRegister(std::int32_t count,
                                             const qx::Completion<qx::Error>& completion) {
  performExtensionRequest([self = shared_from_this(), completion, count](
                              const std::optional<qx::Error>& error,
                              const std::shared_ptr<_QXDocSourceVendor>& proxy,
                              const Callback& done) {
    if (error) {
      DS_LOG("[ERROR] Error registering doc source extension %@: %@.", self->identifier(), error);
      self->retryRegisterWithFileCoordinatorRetryCount_lastError_completion(count, *error,
                                                                            completion);
      return;
    }
    proxy->_performInitialSetupWithCompletion(
        [self, completion, count, done](const std::optional<std::string>& /*text*/,
                                        const std::optional<qx::URL>& /*url*/,
                                        const std::optional<qx::Error>& failure) {
          if (failure) {
            DS_LOG("[ERROR] Doc source extension %@ failed to initialize. Error: %@.",
                   self->identifier(), failure);
            self->retryRegisterWithFileCoordinatorRetryCount_lastError_completion(count, *failure,
                                                                                  completion);
          } else {
            self->operationQueue()->addOperation([self, completion] {
              QXFileCoordinator::_addDocSource(self);
              DS_LOG("[INFO] Registered doc source extension %@ for path %@", self->identifier(),
                     self->providedItemsURL());
              if (completion) completion(std::nullopt);
            });
          }
          if (done) done();
        });
  });
}

void DSExtensionDocSource::retryRegisterWithFileCoordinatorRetryCount_lastError_completion(
    std::int32_t count, const qx::Error& lastError, qx::Completion<qx::Error> completion) {
  if (count < 2) {
    if (completion) completion(lastError);
    return;
  }
  DS_LOG("[NOTICE] Trying to register doc source extension %@ again. Tries left: %d", identifier(),
         count - 1);
  qx::WorkQueue::global().after(std::chrono::seconds(2), [self = shared_from_this(), count,
                                                          completion = std::move(completion)] {
    self->registerWithFileCoordinatorRetryCount_completion(count - 1, completion);
  });
}

void DSExtensionDocSource::registerWithFileCoordinatorCompletion(
    qx::Completion<qx::Error> completion) {
  registerWithFileCoordinatorRetryCount_completion(1, std::move(completion));
}

void DSExtensionDocSource::unregisterFromFileCoordinator() {
  operationQueue()->addOperation(
      [self = shared_from_this()] { QXFileCoordinator::_removeDocSource(self); });
}
