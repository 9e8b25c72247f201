// Descent and environment of processes, from procfs.

#include "platform/platformd/kernel/ProcessLineage.h"

#include <cstdlib>
#include <optional>

#include "platform/identity/Bundles.h"
#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {
namespace {

constexpr int deepest = 64;
constexpr std::size_t mostRemembered = 4096;

struct Kin {
  pid_t parent = 0;
  pid_t group = 0;
};

std::optional<Kin> kinOf(const ProcessDirectory& process) {
  const auto text = process.read("stat");
  // The name, in parentheses, may hold anything; state, parent and group follow it
  // (proc_pid_stat(5)).
  const auto end = text ? text->rfind(')') : std::string::npos;
  if (end == std::string::npos || end + 4 > text->size()) return std::nullopt;
  char* rest = nullptr;
  Kin kin;
  kin.parent = static_cast<pid_t>(std::strtol(text->c_str() + end + 4, &rest, 10));
  kin.group = static_cast<pid_t>(std::strtol(rest, nullptr, 10));
  return kin;
}

bool wasStartedAs(const ProcessDirectory& process, const std::string& docSource) {
  const auto environment = process.read("environ");
  if (!environment) return false;
  const std::string entry = "QX_EXTENSION_IDENTIFIER=" + docSource + '\0';
  return environment->starts_with(entry) || environment->find('\0' + entry) != std::string::npos;
}

/// Whether the daemon is reached from the process, passing one that was started as the extension.
bool isBelow(pid_t process, const std::string& docSource, pid_t daemon, bool isMarked) {
  for (int depth = 0; depth < deepest && process > 1; ++depth) {
    if (process == daemon) return isMarked;
    const auto directory = ProcessDirectory::open(process);
    const auto kin = directory ? kinOf(*directory) : std::nullopt;
    if (!kin) return false;
    isMarked = isMarked || wasStartedAs(*directory, docSource);
    process = kin->parent;
  }
  return false;
}

/// Absent when the process is gone.
std::optional<bool> isOf(pid_t process, const std::string& docSource, pid_t daemon) {
  if (process == daemon) return true;
  const auto directory = ProcessDirectory::open(process);
  const auto kin = directory ? kinOf(*directory) : std::nullopt;
  if (!kin) return std::nullopt;
  const bool isMarked = wasStartedAs(*directory, docSource);
  if (isBelow(kin->parent, docSource, daemon, isMarked)) return true;
  // An orphan stays in the process group that the extension leads.
  return kin->group != process && isBelow(kin->group, docSource, daemon, isMarked);
}

/// Of a process that may be gone.
std::optional<bool> wasStartedAs(pid_t process, const std::string& docSource) {
  const auto directory = ProcessDirectory::open(process);
  if (!directory) return std::nullopt;
  return wasStartedAs(*directory, docSource);
}

}  // namespace

bool ProcessLineage::belongsTo(pid_t process, const std::string& docSource,
                               const AuditToken& daemon) {
  if (daemon.isNobody()) return false;
  const std::pair key(process, docSource);
  const auto now = daemon.isAlive() ? isOf(process, docSource, daemon.processIdentifier())
                                    : wasStartedAs(process, docSource);
  if (!now) {
    const auto before = last_.find(key);
    return before != last_.end() && before->second;
  }
  if (last_.size() >= mostRemembered) last_.clear();
  last_[key] = *now;
  return *now;
}

std::string ProcessLineage::identifierOf(pid_t process) {
  auto bundle = BundleIdentifierFromAuditToken(AuditToken::ofProcess(process));
  return bundle ? *bundle : "pid:" + std::to_string(process);
}

}  // namespace qx::kernel
