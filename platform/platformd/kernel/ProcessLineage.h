#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/identity/AuditToken.h"
#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {

/// Whose processes are whose. Nobody works for a doc source but processes of its owner (effective
/// user) outside of sandboxes, that is, in the service's own user namespace. One thread at a time.
class ProcessLineage {
 public:
  /// Whether the process works for the doc source: it is the daemon that added the source, or a
  /// descendant of it that, or an ancestor of which on the way there, was started as the extension
  /// of that identifier (QX_EXTENSION_IDENTIFIER in its environment, proc_pid_environ(5)). For an
  /// orphan the leader of its process group stands in for the parent that it lost.
  ///
  /// When the daemon is gone, whatever was started as the extension still works for it. A process
  /// that is gone is what it was found to be when it was last asked for.
  bool belongsTo(pid_t process, uid_t owner, const std::string& docSource,
                 const AuditToken& daemon);

  /// Whether belongsTo() has found it to work for the doc source lately, and it is still that very
  /// process, the owner's and in no sandbox. Costs a small part of what belongsTo() does, which
  /// goes through all ancestors.
  bool isKnownToBelongTo(pid_t process, uid_t owner, const std::string& docSource,
                         const AuditToken& daemon) const;

  /// Whether the owner started it as some extension.
  bool isSomeExtension(pid_t process, uid_t owner);

  /// The name under which a doc source hears of it: its bundle identifier, or "pid:" and its number
  /// where it has none, or where the service serves the machine, which knows nobody's bundles.
  static std::string identifierOf(pid_t process);

 private:
  using Question = std::tuple<pid_t, uid_t, std::string>;
  bool remember(const Question& question, std::optional<bool> answer);

  /// A process that works for a doc source of this daemon. It cannot become another one's by what
  /// its ancestors do.
  struct Worker {
    Question question;
    AuditToken daemon;
    ProcessDirectory process;
  };

  std::map<Question, bool> last_;
  std::vector<Worker> workers_;  // the most recent ones, in no order
  std::size_t oldestWorker_ = 0;
};

}  // namespace qx::kernel
