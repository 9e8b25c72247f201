// Modifications that wait for the closing of their files.

#include "platform/platformd/kernel/FinishedWrites.h"

#include <signal.h>

#include <cerrno>

namespace qx::kernel {

std::vector<pid_t> FinishedWrites::closed(const std::string& path, pid_t process) {
  const auto file = open_.find(path);
  if (file == open_.end()) return {};
  std::vector<pid_t> finished;
  if (file->second.erase(process) != 0) {
    finished.push_back(process);
  } else {
    std::erase_if(file->second, [&](pid_t writer) {
      const bool isGone = kill(writer, 0) != 0 && errno == ESRCH;
      if (isGone) finished.push_back(writer);
      return isGone;
    });
  }
  if (file->second.empty()) open_.erase(file);
  return finished;
}

}  // namespace qx::kernel
