// Whether the calling client may use an operation.

#include <algorithm>
#include <utility>

#include "acl/DSAccessControlStore.h"
#include "platform/identity/Bundles.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"
#include "platform/sandbox/Sandbox.h"
#include "servicer/DSConduitServicer.h"

const std::vector<std::string> dsReadOrWriteEntitlements{"com.veltro.docsource.acl-read",
                                                         "com.veltro.docsource.acl-write"};
const std::vector<std::string> dsWriteEntitlements{"com.veltro.docsource.acl-write"};

bool DSConduitServicer::clientHasOneOfAllowedEntitlements(
    const std::vector<std::string>& names) const {
  const bool holdsOne = std::any_of(names.begin(), names.end(), [this](const std::string& name) {
    const auto client = connection();
    const auto value = client ? client->valueForEntitlement(name) : std::nullopt;
    return value && value->numberAsBool().value_or(false);
  });
  if (!holdsOne) {
    DS_LOG(
        "[ERROR] Rejecting request from PID %d because it does not have any of these entitlements: "
        "%@",
        clientAuditToken().processIdentifier(), qx::Value(qx::Array(names.begin(), names.end())));
  }
  return holdsOne;
}

bool DSConduitServicer::clientHasSandboxAccessToFile(const std::optional<qx::URL>& url) const {
  const auto path = url ? url->path() : std::nullopt;
  return path &&
         SandboxCheckByAuditToken(clientAuditToken(), "file-write-data", qx::SandboxFilter::path,
                                  qx::sandboxCheckNoReport, *path) == 0;
}

qx::AuditToken DSConduitServicer::clientAuditToken() const {
  const auto client = connection();
  return client ? client->auditToken() : qx::AuditToken();
}

std::optional<std::string> DSConduitServicer::clientBundleIdentifier() const {
  return BundleIdentifierFromAuditToken(clientAuditToken());
}

std::shared_ptr<DSAccessControlStore> DSConduitServicer::accessControlStore() const {
  const auto owner = server();
  return owner ? owner->accessControlStore() : nullptr;
}

void DSConduitServicer::allow(const std::optional<std::string>& providerID,
                              const std::optional<std::string>& itemID,
                              const std::optional<std::string>& consumerID) const {
  if (const auto store = accessControlStore()) {
    store->allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(providerID, itemID,
                                                                                consumerID);
  }
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
  qx::answerFromGlobalQueue(std::move(completion));
}
