#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>

#include "platform/base/FileDescriptor.h"
#include "platform/queue/Reactor.h"

namespace qx::kernel {

/// The processes that wait. Each is watched for its end as long as it waits (pidfd_open(2)),
/// however many of its threads do. Used by one thread at a time.
class WaitingProcesses {
 public:
  /// `onEnd` is called with its number, on a thread of the reactor, when a process has ended.
  explicit WaitingProcesses(std::function<void(pid_t)> onEnd) : onEnd_(std::move(onEnd)) {}
  WaitingProcesses(const WaitingProcesses&) = delete;
  WaitingProcesses& operator=(const WaitingProcesses&) = delete;
  ~WaitingProcesses();

  /// Returns the user of the process: the real one, whom a set-user-ID program does not change. It
  /// is the number of nobody (-1) when the process is gone.
  uid_t userOf(pid_t process) const;

  /// Counts one more waiting access of the process, or one less.
  void begin(pid_t process, uid_t user);
  void end(pid_t process);
  /// Returns whether the process that waits under that number has ended.
  bool hasEnded(pid_t process) const;

 private:
  class End;
  struct Waiting {
    uid_t user = 0;
    std::size_t accesses = 0;
    FileDescriptor file;
    std::shared_ptr<End> end;
    Reactor::SourceID source = 0;
  };
  void stopWatching(const Waiting& waiting);

  const std::function<void(pid_t)> onEnd_;
  std::map<pid_t, Waiting> all_;
};

}  // namespace qx::kernel
