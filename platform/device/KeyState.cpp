// The lock state of the device.

#include "platform/device/KeyState.h"

#include <charconv>
#include <string>
#include <string_view>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx {
namespace {

constexpr std::string_view lockStateKey = "lock-state=";
constexpr std::string_view unlockedKey = " unlocked-since-boot=";

std::optional<KeyState> parse(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (!text.starts_with(lockStateKey)) return std::nullopt;
  text.remove_prefix(lockStateKey.size());
  KeyState state;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), state.lockState);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  if (!text.starts_with(unlockedKey)) return std::nullopt;
  text.remove_prefix(unlockedKey.size());
  if (text != "0" && text != "1") return std::nullopt;
  state.unlockedSinceBoot = text == "1";
  return state;
}

}  // namespace

KeyState readKeyState() {
  auto text = FileManager::readFile(Places::keyState());
  if (!text && text.error().is(QXStandardErrorDomain, fileNoSuchFileError)) return {};
  auto state = text ? parse(*text) : std::nullopt;
  if (state) return *state;
  if (text) {
    DS_LOG("[ERROR] Cannot understand the key state in %@", Places::keyState());
  } else {
    DS_LOG("[ERROR] Cannot read the key state: %@", text.error());
  }
  return {0, false};
}

std::optional<Error> writeKeyState(const KeyState& state) {
  std::string text(lockStateKey);
  text += std::to_string(state.lockState);
  text += unlockedKey;
  text += state.unlockedSinceBoot ? "1\n" : "0\n";
  return FileManager::replaceFile(Places::keyState(), text, 0644);
}

}  // namespace qx

int DeviceLockState() { return qx::readKeyState().lockState; }
int DeviceUnlockedSinceBoot() { return qx::readKeyState().unlockedSinceBoot ? 1 : 0; }
