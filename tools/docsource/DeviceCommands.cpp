// The lock of the device, as whoever locks and unlocks it tells it to the system.

#include "platform/base/Errors.h"
#include "platform/coordination/CoordinationState.h"
#include "platform/device/KeyState.h"
#include "platform/files/Places.h"
#include "platform/notify/SystemNotifyCenter.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

constexpr int locked = 0;
constexpr int unlocked = 3;
constexpr const char* firstUnlockNotification = "com.veltro.mobile.lockwardd.first_unlock";

int show(const Arguments& arguments, const qx::KeyState& state, qx::Dictionary more = {},
         const std::string& moreText = "") {
  std::string text = state.lockState == unlocked ? "unlocked" : "locked";
  text += " (lock state " + std::to_string(state.lockState) + "), ";
  text += state.unlockedSinceBoot ? "unlocked since boot\n" : "not unlocked since boot\n";
  more.emplace("lockState", state.lockState);
  more.emplace("unlockedSinceBoot", state.unlockedSinceBoot);
  return answer(arguments.json, more, text + moreText);
}

std::optional<qx::Error> write(const qx::KeyState& state) {
  if (const int failed = qx::Places::prepare()) {
    return qx::posixError(failed, "The places of the system cannot be made");
  }
  return qx::writeKeyState(state);
}

}  // namespace

int deviceStatus(const Arguments& arguments) {
  const auto mechanism = qx::readCoordinationMechanism();
  if (!mechanism) return show(arguments, qx::readKeyState());
  const std::string name(qx::nameOf(*mechanism));
  return show(arguments, qx::readKeyState(), {{"coordination", name}},
              "coordination of programs that do not ask: " + name + "\n");
}

int deviceLock(const Arguments& arguments) {
  const qx::KeyState state{locked, qx::readKeyState().unlockedSinceBoot};
  if (auto error = write(state)) return fail(arguments, *error);
  return show(arguments, state);
}

int deviceUnlock(const Arguments& arguments) {
  const qx::KeyState state{unlocked, true};
  if (auto error = write(state)) return fail(arguments, *error);
  if (auto error = qx::SystemNotifyCenter::post(firstUnlockNotification))
    return fail(arguments, *error);
  return show(arguments, state);
}

}  // namespace tool
