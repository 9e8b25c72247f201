// The ends of processes that wait.

#include "platform/platformd/kernel/WaitingProcesses.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {

class WaitingProcesses::End final : public ReactorHandler {
 public:
  End(pid_t process, std::function<void(pid_t)> onEnd)
      : process_(process), onEnd_(std::move(onEnd)) {}
  void ready(std::uint32_t /*events*/) override { onEnd_(process_); }

 private:
  const pid_t process_;
  const std::function<void(pid_t)> onEnd_;
};

WaitingProcesses::~WaitingProcesses() {
  for (const auto& [process, waiting] : all_) stopWatching(waiting);
}

void WaitingProcesses::stopWatching(const Waiting& waiting) {
  if (waiting.source != 0) Reactor::shared().remove(waiting.source, waiting.file.get());
}

uid_t WaitingProcesses::userOf(pid_t process) const {
  if (const auto known = all_.find(process); known != all_.end()) return known->second.user;
  const auto directory = ProcessDirectory::open(process);
  const auto credentials = directory ? directory->credentials() : std::nullopt;
  return credentials ? credentials->realUser : static_cast<uid_t>(-1);
}

void WaitingProcesses::begin(pid_t process, uid_t user) {
  auto& waiting = all_[process];
  if (waiting.accesses++ > 0) return;
  waiting.user = user;
  waiting.file.reset(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  if (!waiting.file) return onEnd_(process);
  waiting.end = std::make_shared<End>(process, onEnd_);
  waiting.source = Reactor::shared().add(waiting.file.get(), EPOLLIN, waiting.end);
}

bool WaitingProcesses::hasEnded(pid_t process) const {
  const auto known = all_.find(process);
  if (known == all_.end()) return false;
  pollfd end{known->second.file.get(), POLLIN, 0};
  return !known->second.file || poll(&end, 1, 0) > 0;
}

void WaitingProcesses::end(pid_t process) {
  const auto known = all_.find(process);
  if (known == all_.end() || --known->second.accesses > 0) return;
  stopWatching(known->second);
  all_.erase(known);
}

}  // namespace qx::kernel
