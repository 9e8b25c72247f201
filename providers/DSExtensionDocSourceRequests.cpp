// One extension request. The extension host opens it, a proxy of its auxiliary connection carries
// the calls, and the done callback ends it.

#include <utility>

#include "platform/base/Errors.h"
#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"

void DSExtensionDocSource::performExtensionRequest(RequestCallback callback) {
  extension()->beginExtensionRequestWithInputItems_completion(
      std::nullopt,
      [self = shared_from_this(), callback = std::move(callback)](
          const std::optional<qx::UUID>& request, const std::optional<qx::Error>& error) {
        Callback done = [self, request] {
          self->extension()->cancelExtensionRequestWithIdentifier(request);
        };
        DS_LOG("[DEBUG] Beginning extension request.");
        if (error) {
          DS_LOG("[ERROR] Extension request failed. Error: %@", error);
          callback(error, nullptr, done);
          return;
        }
        auto proxy = self->proxyForIdentifier_errorHandler(
            request,
            [callback, done](const qx::Error& failure) { callback(failure, nullptr, done); });
        if (proxy) {
          callback(std::nullopt, proxy, done);
        } else {
          DS_LOG("[ERROR] Could not get proxy object for a request.");
          callback(DSProxyNotFoundError(self->identifier(), std::nullopt), nullptr, done);
        }
      });
}

std::shared_ptr<_QXDocSourceVendor> DSExtensionDocSource::proxyForIdentifier_errorHandler(
    const std::optional<qx::UUID>& request,
    std::function<void(const qx::Error& error)> errorHandler) {
  const auto context = extension()->_extensionContextForUUID(request);
  if (!context) {
    DS_LOG("[ERROR] Could not get extension context for request identifier %@", request);
    return nullptr;
  }
  return context->_auxiliaryConnection()->remoteObjectProxyWithErrorHandler<_QXDocSourceVendor>(
      [errorHandler = std::move(errorHandler)](const qx::Error& error) {
        DS_LOG("[ERROR] Error getting remote proxy object for provider extension. Error: %@",
               error);
        if (errorHandler) errorHandler(error);
      });
}
