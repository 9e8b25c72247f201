// Whether the calling client may use an operation.

#include "servicer/DSServicer.h"

#include <algorithm>

#include "daemon/DSServer.h"
#include "platform/base/Value.h"
#include "platform/log/Log.h"

const std::vector<std::string> dsReadOrWriteEntitlements{"com.veltro.docsource.acl-read",
                                                         "com.veltro.docsource.acl-write"};
const std::vector<std::string> dsWriteEntitlements{"com.veltro.docsource.acl-write"};

bool DSServicer::clientHasOneOfAllowedEntitlements(const std::vector<std::string>& names) const {
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

qx::AuditToken DSServicer::clientAuditToken() const {
  const auto client = connection();
  return client ? client->auditToken() : qx::AuditToken();
}

std::shared_ptr<DSAccessControlStore> DSServicer::accessControlStore() const {
  const auto daemon = server();
  return daemon ? daemon->accessControlStore() : nullptr;
}
