#pragma once

#include <memory>
#include <string>

#include "platform/base/Errors.h"
#include "platform/conduit/QXProtocol.h"

/// The client interface of the daemon, served under the name "com.veltro.DocSource". Every
/// operation answers through its completion callback; the error comes first in the operations that
/// act on behalf of a consumer and in the listing, last in those of bookmarkable strings.
///
/// URLs are file URLs; provider and consumer are bundle identifiers; bytes are sandbox tokens.

// clang-format off
#define DS_DAEMON(OPERATION)                                                               \
  OPERATION(wakeUpCompletion, (), ())                                                      \
  OPERATION(extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler,         \
            (qx::URL, std::string, std::string),                                           \
            (qx::Error, qx::Bytes, qx::URL, qx::Bytes))                                    \
  OPERATION(providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler, \
            (qx::URL, std::string, std::string), (qx::Error))                              \
  OPERATION(startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler,        \
            (qx::URL, std::string, std::string), (qx::Error))                              \
  OPERATION(stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler,         \
            (qx::URL, std::string, std::string), (qx::Error))                              \
  OPERATION(providersCompletionHandler, (), (qx::Error, qx::Dictionary))                   \
  OPERATION(extendBookmarkForFileURL_toConsumerID_completionHandler,                       \
            (qx::URL, std::string), (std::string, qx::Error))                              \
  OPERATION(bookmarkableStringFromDocumentURL_completion,                                  \
            (qx::URL), (std::string, qx::Error))                                           \
  OPERATION(documentURLFromBookmarkableString_completion,                                  \
            (std::string), (qx::URL, qx::Bytes, qx::URL, qx::Bytes, qx::Error))
// clang-format on
QX_PROTOCOL(DSDaemon, DS_DAEMON)

inline constexpr const char* dsDaemonServiceName = "com.veltro.DocSource";

/// The description of the interface for either end, with the one widening it has: the listing is
/// made of dictionaries, strings and URLs.
inline std::shared_ptr<QXConduitInterface> dsDaemonInterface() {
  using qx::conduit::ValueClass;
  auto interface = QXConduitInterface::interfaceWithProtocol<DSDaemon>();
  interface->setClassesForReply({ValueClass::dictionary, ValueClass::string, ValueClass::url},
                                "providersCompletionHandler:", 1);
  return interface;
}
