#pragma once

#include <memory>
#include <utility>

#include "platform/conduit/QXProtocol.h"

/// What the process of an account offers to the tools of its user, under the account's bundle
/// identifier as the name of the service. Whoever is another user, or in a sandbox, is not served.
///
/// The health of an account is a dictionary: "state" (a word of accountStateName()), "since"
/// (seconds since 1970), where there is one "reason" (a sentence), and the numbers "items",
/// "waiting", "failed", "removalsHere" and "removalsThere". The status of an item is one, too:
/// "state" (a word of itemStateName()), "isDirectory", "isPinned" and where there is one "reason";
/// or an "error". They come in the order of the URLs. A transfer: "URL", "isUpload", "done" and
/// "total", in bytes. A conflict: "URL", "copyURL" and "since".
///
/// Bringing in, giving back and synchronising are answered when they are done. changesAfter is
/// answered when something is different from what was told with that number (0: from nothing): with
/// the next number, and the status of the items that are different, each with its "URL"; without
/// them when all may be.

// clang-format off
#define DS_ACCOUNT(OPERATION)                                                     \
  OPERATION(healthCompletion, (), (qx::Error, qx::Dictionary))                    \
  OPERATION(syncConfirmingRemovals_completion, (bool), (qx::Error))               \
  OPERATION(statusOfItemsAtURLs_completion, (qx::Array), (qx::Error, qx::Array))  \
  OPERATION(provideItemAtURL_completion, (qx::URL), (qx::Error))                  \
  OPERATION(evictItemAtURL_completion, (qx::URL), (qx::Error))                    \
  OPERATION(pinItemAtURL_completion, (qx::URL), (qx::Error))                      \
  OPERATION(unpinItemAtURL_completion, (qx::URL), (qx::Error))                    \
  OPERATION(transfersCompletion, (), (qx::Error, qx::Array))                      \
  OPERATION(cancelTransferOfItemAtURL_completion, (qx::URL), (qx::Error))         \
  OPERATION(conflictsCompletion, (), (qx::Error, qx::Array))                      \
  OPERATION(takeConflictCopyAtURL_completion, (qx::URL), (qx::Error))             \
  OPERATION(changesAfter_completion, (std::int64_t),                              \
            (qx::Error, std::int64_t, qx::Array))
// clang-format on
QX_PROTOCOL(DSAccount, DS_ACCOUNT)

/// The description of the interface for either end.
inline std::shared_ptr<QXConduitInterface> dsAccountInterface() {
  using qx::conduit::ValueClass;
  auto interface = QXConduitInterface::interfaceWithProtocol<DSAccount>();
  interface->setClassesForReply({ValueClass::string, ValueClass::integer}, "healthCompletion:", 1);
  for (const auto& [operation, list] :
       {std::pair("statusOfItemsAtURLs:completion:", 1), std::pair("transfersCompletion:", 1),
        std::pair("conflictsCompletion:", 1), std::pair("changesAfter:completion:", 2)}) {
    interface->setClassesForReply({ValueClass::dictionary, ValueClass::string, ValueClass::integer,
                                   ValueClass::boolean, ValueClass::url, ValueClass::error},
                                  operation, list);
  }
  return interface;
}
