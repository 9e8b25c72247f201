// The listing of the installed providers.

#include <utility>

#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSConduitServicer.h"

void DSConduitServicer::providersCompletionHandler(
    qx::Completion<qx::Error, qx::Dictionary> completion) {
  const auto operation = qx::operationName(__func__);
  DS_LOG("[DEBUG] Serving: %@", operation);
  if (clientHasOneOfAllowedEntitlements(dsReadOrWriteEntitlements)) {
    // The registry as it is at the moment of the call, not at that of the answer.
    auto providers = DSExtensionDocSource::providersInfo();
    qx::answerFromGlobalQueue(
        [completion = std::move(completion), providers = std::move(providers), operation] {
          DS_LOG("[DEBUG] %@: returning providers %@", operation, qx::Value(providers));
          if (completion) completion(std::nullopt, providers);
        });
    return;
  }
  DS_LOG("[DEBUG] %@: Client is missing entitlement", operation);
  if (!completion) return;
  qx::answerFromGlobalQueue([completion = std::move(completion)] {
    completion(DSClientLacksEntitlement(std::nullopt), std::nullopt);
  });
}
