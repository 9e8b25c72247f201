#pragma once

#include <optional>

#include "platform/base/Error.h"

/// The lock state of the device, from the file "key-state" in the runtime directory: one line,
/// `lock-state=<integer> unlocked-since-boot=<0 or 1>`. Without the file the device has no lock:
/// 3 and 1. A file that cannot be understood counts as locked and never unlocked (0 and 0), with a
/// line in the log.

/// The current lock state; 3 is unlocked.
int DeviceLockState();
/// Non-zero once the device has been unlocked at least once since boot.
int DeviceUnlockedSinceBoot();

namespace qx {

struct KeyState {
  int lockState = 3;
  bool unlockedSinceBoot = true;
};
KeyState readKeyState();
/// Replaces the file atomically.
std::optional<Error> writeKeyState(const KeyState& state);

}  // namespace qx
