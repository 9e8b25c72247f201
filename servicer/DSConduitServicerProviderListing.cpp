// The listing of the installed providers.

#include <utility>

#include "platform/log/Log.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSConduitServicer.h"

void DSConduitServicer::providersCompletionHandler(
    qx::Completion<qx::Error, qx::Dictionary> completion) {
  const auto operation = qx::operationName(__func__);
  DS_LOG("[DEBUG] Serving: %@", operation);
  if (clientHasOneOfAllowedEntitlements(dsReadOrWriteEntitlements)) {
    // The answer is the registry at the moment of the call.
    qx::Completion<qx::Error, qx::Dictionary> logged =
        [completion = std::move(completion), operation](
            const std::optional<qx::Error>& error, const std::optional<qx::Dictionary>& providers) {
          DS_LOG("[DEBUG] %@: returning providers %@", operation, qx::Value(*providers));
          if (completion) completion(error, providers);
        };
    answerEarly(std::move(logged), std::nullopt, DSExtensionDocSource::providersInfo());
    return;
  }
  DS_LOG("[DEBUG] %@: Client is missing entitlement", operation);
  answerEarly(std::move(completion), DSClientLacksEntitlement(std::nullopt), std::nullopt);
}
