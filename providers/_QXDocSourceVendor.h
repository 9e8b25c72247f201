#pragma once

#include <string>

#include "platform/conduit/QXProtocol.h"

/// What the daemon asks of a provider extension. The look-ups answer with the error first, the
/// others with the error last.

// clang-format off
#define QX_DOC_SOURCE_VENDOR(OPERATION)                                              \
  OPERATION(_performInitialSetupWithCompletion, (), (std::string, qx::URL, qx::Error)) \
  OPERATION(_providePlaceholderAtURL_completion, (qx::URL), (qx::URL, qx::Error))      \
  OPERATION(_startProvidingItemAtURL_completion, (qx::URL), (qx::Error))               \
  /* offset and number of the bytes that a reader waits for */                         \
  OPERATION(_readerOfItemAtURL_waitsForBytes_completion, (qx::URL, qx::Array), ())     \
  OPERATION(_itemChangedAtURL_completion, (qx::URL), (qx::Error))                      \
  OPERATION(_stopProvidingItemAtURL_completion, (qx::URL), (qx::Error))                \
  OPERATION(_identifierForItemAtURL_completion, (qx::URL), (qx::Error, std::string))   \
  OPERATION(_URLForItemIdentifier_completion, (std::string), (qx::Error, qx::URL))
// clang-format on
QX_PROTOCOL(_QXDocSourceVendor, QX_DOC_SOURCE_VENDOR)

/// What a provider extension may ask of the daemon over the same connection: nothing.
#define QX_DOC_SOURCE_HOST_PROTOCOL(OPERATION)
QX_PROTOCOL(_QXDocSourceHostProtocol, QX_DOC_SOURCE_HOST_PROTOCOL)
