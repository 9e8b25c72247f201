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

/// Which processes work for which doc source. Only processes of its owner (effective user) outside
/// of sandboxes do, that is, in the service's own user namespace. One in another user namespace
/// counts as the process that started it if both execute the same file and that one is outside:
/// so providers make a system call that the permissions of a file deny them. Used by one thread at
/// a time.
class ProcessLineage {
 public:
  /// Returns whether the process works for the doc source. It does if it is the daemon that added
  /// the source, or a descendant of that daemon, and it or an ancestor on the way there was started
  /// as the extension of that identifier (QX_EXTENSION_IDENTIFIER in its environment,
  /// proc_pid_environ(5)). For an orphan the leader of its process group stands in for the parent
  /// that it lost.
  ///
  /// When the daemon is gone, whatever was started as the extension still works for it. For a
  /// process that is gone, the answer is the last one that was given.
  bool belongsTo(pid_t process, uid_t owner, const std::string& docSource,
                 const AuditToken& daemon);

  /// Returns whether belongsTo() has lately found that it works for the doc source, and it is still
  /// that very process, the owner's and in no sandbox. This costs a small part of belongsTo(),
  /// which goes through all ancestors.
  bool isKnownToBelongTo(pid_t process, uid_t owner, const std::string& docSource,
                         const AuditToken& daemon) const;

  /// Returns whether the owner started it as an extension of any identifier.
  bool isSomeExtension(pid_t process, uid_t owner);

  /// The name by which a doc source hears of it: its bundle identifier; or "pid:" and its number
  /// where it has none, or where the service serves the machine, which knows nobody's bundles.
  static std::string identifierOf(pid_t process);

 private:
  using Question = std::tuple<pid_t, uid_t, std::string>;
  bool remember(const Question& question, std::optional<bool> answer);

  /// A process that works for a doc source of this daemon. Nothing that its ancestors do makes it
  /// work for another.
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
