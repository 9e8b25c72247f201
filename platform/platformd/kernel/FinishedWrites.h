#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace qx::kernel {

/// Which files were modified by whom and not closed since. One thread at a time.
class FinishedWrites {
 public:
  void modified(const std::string& path, pid_t process) { open_[path].insert(process); }

  /// The modifications that this closing finishes: those of the process that closed, else those of
  /// processes that are gone, which left their open file to it.
  std::vector<pid_t> closed(const std::string& path, pid_t process);

  void clear() { open_.clear(); }

 private:
  std::map<std::string, std::set<pid_t>> open_;
};

}  // namespace qx::kernel
