#pragma once

#include "platform/conduit/QXProtocol.h"

/// The platform service that redeems sandbox extensions, under qx::sandboxServiceName.
// clang-format off
#define QX_SANDBOX(OPERATION)                                                             \
  /* a token; the descriptor of the file */                                               \
  OPERATION(consumeExtension_completion, (qx::Bytes), (qx::Error, qx::SharedDescriptor))  \
  /* the runtime directory of the caller's user, for as long as the connection lasts */   \
  OPERATION(useKeyDirectory_completion, (qx::SharedDescriptor), (qx::Error))
// clang-format on
QX_PROTOCOL(QXSandbox, QX_SANDBOX)
