// What the client itself may do, and whether it was granted what it asks for.

#include <utility>

#include "acl/DSAccessControlStore.h"
#include "platform/identity/Bundles.h"
#include "platform/log/Log.h"
#include "platform/sandbox/Sandbox.h"
#include "servicer/DSConduitServicer.h"

bool DSConduitServicer::clientHasSandboxAccessToFile(const std::optional<qx::URL>& url) const {
  const auto path = url ? url->path() : std::nullopt;
  return path &&
         SandboxCheckByAuditToken(clientAuditToken(), "file-write-data", qx::SandboxFilter::path,
                                  qx::sandboxCheckNoReport, *path) == 0;
}

std::optional<std::string> DSConduitServicer::clientBundleIdentifier() const {
  return BundleIdentifierFromAuditToken(clientAuditToken());
}

bool DSConduitServicer::isAllowed(const std::optional<std::string>& providerID,
                                  const std::optional<std::string>& itemID,
                                  const std::optional<std::string>& consumerID) const {
  const auto store = accessControlStore();
  return store && store->isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
                      providerID, itemID, consumerID);
}

void DSConduitServicer::wakeUpCompletion(qx::Completion<> completion) {
  DS_LOG("[DEBUG] Serving: %@", qx::operationName(__func__));
  answerEarly(std::move(completion));
}
