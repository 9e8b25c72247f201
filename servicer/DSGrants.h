#pragma once

#include <memory>
#include <string>

#include "platform/base/Errors.h"
#include "platform/conduit/QXProtocol.h"

/// The interface to the grants themselves, served under the name "com.veltro.DocSource.Grants" to
/// holders of the entitlement "com.veltro.docsource.acl-write".
///
/// A grant is a dictionary with "providerIdentifier", "itemIdentifier", "consumerIdentifier" and,
/// where the provider tells it in time, "URL". Revoking takes the item's identifier, the provider's
/// and the consumer's; an absent item means all that the consumer has of the provider.

// clang-format off
#define DS_GRANTS(OPERATION)                                                \
  OPERATION(grantsCompletion, (), (qx::Error, qx::Array))                   \
  OPERATION(revokeItemWithID_ofProviderID_forConsumerID_completion,         \
            (std::string, std::string, std::string), (qx::Error))
// clang-format on
QX_PROTOCOL(DSGrants, DS_GRANTS)

inline constexpr const char* dsGrantsServiceName = "com.veltro.DocSource.Grants";

/// The description of the interface for either end: a grant is made of strings and a URL.
inline std::shared_ptr<QXConduitInterface> dsGrantsInterface() {
  using qx::conduit::ValueClass;
  auto interface = QXConduitInterface::interfaceWithProtocol<DSGrants>();
  interface->setClassesForReply({ValueClass::dictionary, ValueClass::string, ValueClass::url},
                                "grantsCompletion:", 1);
  return interface;
}
