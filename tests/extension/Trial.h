#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/conduit/QXConduitConnection.h"
#include "platform/extension/QXExtension.h"

// clang-format off
#define TRIAL_VENDOR(OPERATION)                                  \
  OPERATION(processCompletion, (), (std::int64_t))               \
  OPERATION(giveUpRequest_completion, (qx::UUID), (qx::Error))   \
  OPERATION(hangCompletion, (), ())
#define TRIAL_HOST(OPERATION)
// clang-format on
QX_PROTOCOL(TrialVendor, TRIAL_VENDOR)
QX_PROTOCOL(TrialHost, TRIAL_HOST)

struct TrialContext final : QXExtensionContext {
  static std::shared_ptr<const QXConduitInterface> _extensionAuxiliaryHostProtocol() {
    return QXConduitInterface::interfaceWithProtocol<TrialHost>();
  }
  static std::shared_ptr<const QXConduitInterface> _extensionAuxiliaryVendorProtocol() {
    return QXConduitInterface::interfaceWithProtocol<TrialVendor>();
  }
};
