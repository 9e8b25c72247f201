#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "platform/identity/AuditToken.h"

namespace qx::kernel {

/// Whose processes are whose. One thread at a time.
class ProcessLineage {
 public:
  /// Whether the process works for the doc source: it is the daemon that added the source, or a
  /// descendant of it that, or an ancestor of which on the way there, was started as the extension
  /// of that identifier (QX_EXTENSION_IDENTIFIER in its environment, proc_pid_environ(5)). For an
  /// orphan the leader of its process group stands in for the parent that it lost.
  ///
  /// When the daemon is gone, whatever was started as the extension still works for it. A process
  /// that is gone is what it was found to be when it was last asked for.
  bool belongsTo(pid_t process, const std::string& docSource, const AuditToken& daemon);

  /// The name under which a doc source hears of it.
  static std::string identifierOf(pid_t process);

 private:
  std::map<std::pair<pid_t, std::string>, bool> last_;
};

}  // namespace qx::kernel
