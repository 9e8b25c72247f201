#pragma once

#include <string>

#include "platform/conduit/QXProtocol.h"

/// The file-coordination service, and what it calls back on the connection that added a doc source.

inline constexpr const char* fileCoordinationServiceName = "com.veltro.FileCoordination";
/// Who may add doc sources.
inline constexpr const char* fileCoordinationHostEntitlement = "com.veltro.file-coordination.host";

// clang-format off
#define QX_FILE_COORDINATION(OPERATION)                                                       \
  /* doc source's identifier, its provided-items directory */                                 \
  OPERATION(addDocSource_providedItemsURL_completion, (std::string, qx::URL), (qx::Error))    \
  OPERATION(removeDocSource_completion, (std::string), (qx::Error))                           \
  OPERATION(coordinateReadingItemAtURL_completion, (qx::URL), (qx::Error))                    \
  OPERATION(didFinishWritingItemAtURL_completion, (qx::URL), (qx::Error))

#define QX_FILE_COORDINATION_HOST(OPERATION)                                                  \
  /* doc source's identifier, item, reader's identifier */                                    \
  OPERATION(docSource_provideItemAtURL_toReaderWithID_completionHandler,                      \
            (std::string, qx::URL, std::string), (qx::Error))                                 \
  /* doc source's identifier, item that is being provided, offset and number of the bytes */  \
  OPERATION(docSource_readerOfItemAtURL_waitsForBytes_completionHandler,                      \
            (std::string, qx::URL, qx::Array), ())                                            \
  /* doc source's identifier, writer's identifier, item */                                    \
  OPERATION(docSource_writerWithID_didFinishWritingForURL_completionHandler,                  \
            (std::string, std::string, qx::URL), ())
// clang-format on
QX_PROTOCOL(QXFileCoordination, QX_FILE_COORDINATION)
QX_PROTOCOL(QXFileCoordinationHost, QX_FILE_COORDINATION_HOST)
