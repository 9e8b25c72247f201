// Descent and environment of processes, from procfs.

#include "platform/platformd/kernel/ProcessLineage.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include "platform/files/Places.h"
#include "platform/identity/Bundles.h"
#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {
namespace {

constexpr int deepest = 64;
constexpr std::size_t mostRemembered = 4096;
constexpr std::size_t mostWorkers = 16;

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

/// Of a process that hides from others (proc(5), "dumpable") the files in /proc would belong to
/// root; its status tells whose it is.
bool isOfUser(const ProcessDirectory& process, uid_t owner) {
  const auto credentials = process.credentials();
  return credentials && credentials->effectiveUser == owner;
}

bool isOutside(const ProcessDirectory& process) {
  static const auto here = [] {
    struct stat status {};
    return stat("/proc/self/ns/user", &status) == 0 ? identityOf(status) : FileIdentity();
  }();
  return process.userNamespace() == here;
}

/// Whether it is the user's, and in no sandbox.
bool isOwn(const ProcessDirectory& process, uid_t owner) {
  return isOutside(process) && isOfUser(process, owner);
}

/// Absent a doc source: as any.
bool wasStartedAs(const ProcessDirectory& process, const std::optional<std::string>& docSource) {
  const auto environment = process.read("environ");
  if (!environment) return false;
  const std::string entry = "QX_EXTENSION_IDENTIFIER=" + (docSource ? *docSource + '\0' : "");
  return environment->starts_with(entry) || environment->find('\0' + entry) != std::string::npos;
}

/// A process and its ancestors, as far as the daemon, or as far as there are any.
struct Line {
  std::vector<std::pair<pid_t, ProcessDirectory>> processes;
  bool reachesDaemon = false;

  Line(pid_t process, pid_t daemon) {
    for (int depth = 0; depth < deepest && process > 1; ++depth) {
      reachesDaemon = process == daemon;
      auto directory = reachesDaemon ? std::nullopt : ProcessDirectory::open(process);
      const auto kin = directory ? kinOf(*directory) : std::nullopt;
      if (!kin) return;
      processes.emplace_back(process, *std::move(directory));
      process = kin->parent;
    }
  }

  bool has(pid_t process) const {
    return std::any_of(processes.begin(), processes.end(),
                       [&](const auto& each) { return each.first == process; });
  }

  /// Whether it comes from the daemon by one that was started as the extension. Most programs come
  /// from elsewhere, and what they were started with need not be read.
  bool comesFrom(const std::string& docSource) const {
    return reachesDaemon && std::any_of(processes.begin(), processes.end(), [&](const auto& each) {
             return wasStartedAs(each.second, docSource);
           });
  }
};

/// Absent when the process is gone.
std::optional<bool> isOf(pid_t process, uid_t owner, const std::string& docSource, pid_t daemon) {
  const auto directory = ProcessDirectory::open(process);
  const auto kin = directory ? kinOf(*directory) : std::nullopt;
  if (!kin) return std::nullopt;
  if (!isOwn(*directory, owner)) return false;
  if (process == daemon) return true;
  const Line line(process, daemon);
  if (line.comesFrom(docSource)) return true;
  // An orphan stays in the process group that the extension leads.
  if (line.has(kin->group)) return false;
  const Line leader(kin->group, daemon);
  return leader.comesFrom(docSource) ||
         (leader.reachesDaemon && wasStartedAs(*directory, docSource));
}

/// The process that started this one as the same program in a user namespace of its own, where that
/// one is in no sandbox; absent for any other.
std::optional<pid_t> starterOutside(pid_t process, uid_t owner) {
  const auto directory = ProcessDirectory::open(process);
  const auto kin = directory ? kinOf(*directory) : std::nullopt;
  if (!kin || isOutside(*directory) || !isOfUser(*directory, owner)) return std::nullopt;
  const auto starter = ProcessDirectory::open(kin->parent);
  if (!starter || !isOwn(*starter, owner)) return std::nullopt;
  const auto program = directory->executable();
  if (!program || program != starter->executable()) return std::nullopt;
  return kin->parent;
}

/// Of a process that may be gone.
std::optional<bool> wasStartedAs(pid_t process, uid_t owner,
                                 const std::optional<std::string>& docSource) {
  const auto directory = ProcessDirectory::open(process);
  if (!directory) return std::nullopt;
  return isOwn(*directory, owner) && wasStartedAs(*directory, docSource);
}

}  // namespace

bool ProcessLineage::remember(const Question& question, std::optional<bool> answer) {
  if (!answer) {
    const auto before = last_.find(question);
    return before != last_.end() && before->second;
  }
  if (last_.size() >= mostRemembered) last_.clear();
  last_[question] = *answer;
  return *answer;
}

bool ProcessLineage::belongsTo(pid_t process, uid_t owner, const std::string& docSource,
                               const AuditToken& daemon) {
  if (daemon.isNobody()) return false;
  if (isKnownToBelongTo(process, owner, docSource, daemon)) return true;
  if (const auto starter = starterOutside(process, owner)) {
    return belongsTo(*starter, owner, docSource, daemon);
  }
  auto directory = ProcessDirectory::open(process);
  const Question question(process, owner, docSource);
  const bool belongs = remember(
      question, daemon.isAlive() ? isOf(process, owner, docSource, daemon.processIdentifier())
                                 : wasStartedAs(process, owner, docSource));
  if (!belongs || !directory) return belongs;
  Worker worker{question, daemon, *std::move(directory)};
  if (workers_.size() < mostWorkers) {
    workers_.push_back(std::move(worker));
  } else {
    workers_[oldestWorker_++ % mostWorkers] = std::move(worker);
  }
  return true;
}

bool ProcessLineage::isKnownToBelongTo(pid_t process, uid_t owner, const std::string& docSource,
                                       const AuditToken& daemon) const {
  return std::any_of(workers_.begin(), workers_.end(), [&](const Worker& worker) {
    return worker.question == std::tie(process, owner, docSource) && worker.daemon == daemon &&
           isOwn(worker.process, owner);
  });
}

bool ProcessLineage::isSomeExtension(pid_t process, uid_t owner) {
  process = starterOutside(process, owner).value_or(process);
  return remember({process, owner, std::string()}, wasStartedAs(process, owner, std::nullopt));
}

std::string ProcessLineage::identifierOf(pid_t process) {
  auto bundle = Places::servesMachine()
                    ? std::nullopt
                    : BundleIdentifierFromAuditToken(AuditToken::ofProcess(process));
  return bundle ? *bundle : "pid:" + std::to_string(process);
}

}  // namespace qx::kernel
