#pragma once

#include "platform/conduit/QXProtocol.h"

/// The platform service that redeems sandbox extensions, under qx::sandboxServiceName: token in,
/// error or descriptor out.
#define QX_SANDBOX(OPERATION) \
  OPERATION(consumeExtension_completion, (qx::Bytes), (qx::Error, qx::SharedDescriptor))
QX_PROTOCOL(QXSandbox, QX_SANDBOX)
