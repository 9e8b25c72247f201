#pragma once

#include <optional>
#include <string>

namespace tool {

/// How a unit of the service manager is (org.freedesktop.systemd1(5)).
struct Unit {
  /// "active", "failed", "inactive", …
  std::string activeState;
  /// "enabled", "disabled", "masked", …; empty for one that is started by others.
  std::string fileState;
  /// Why the last run ended: "success", "exit-code", "start-limit-hit", …
  std::string result;
};

enum class ServiceManager { system, user };

/// Absent where there is no such service manager, or it does not have the unit.
std::optional<Unit> unitCalled(ServiceManager manager, const std::string& name);

}  // namespace tool
