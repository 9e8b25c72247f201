#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/coordination/CoordinationState.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/platformd/kernel/EventChannel.h"
#include "platform/platformd/kernel/FanotifyGroup.h"

namespace qx::kernel {

/// The process that must not fail. It keeps the groups open, reads which programs wait, hands that
/// to its worker, and passes the answers on. When a worker dies it is replaced at once, and the
/// next one gets everything that has not been answered. So programs that wait go on waiting, and
/// nobody reads what is not there. It also keeps the listening sockets, so that no client finds
/// them closed.
///
/// It has one thread, no queues, and nothing of the services. Where the service manager stores
/// descriptors (sd_pid_notify_with_fds(3)), the groups are stored there too, and survive this
/// process.
class EventHolder {
 public:
  /// What it holds. It can be had only with CAP_SYS_ADMIN.
  struct Groups {
    AccessGroup accesses;
    ChangeGroup changes;
    /// The kind of events: preAccess where the kernel has it for files under the root.
    std::uint64_t mask = preAccess;
    CoordinationMechanism mechanism() const {
      return mask == preAccess ? CoordinationMechanism::access : CoordinationMechanism::open;
    }
    /// Whether the service manager has them too, and keeps them when this process ends.
    bool stored = false;
    /// Whether they have marks from before.
    bool areMarked = false;
  };
  /// Takes them from the service manager, or makes new ones and stores them there if that is
  /// possible. Accesses that a process that is gone has read but not answered fail with EAGAIN.
  /// `wanted` is preAccess, or openPermission to do with less.
  static Result<Groups> groups(std::uint64_t wanted);

  /// `sockets` are those of the worker, see workerSocket().
  EventHolder(Groups groups, std::vector<FileDescriptor> sockets)
      : groups_(std::move(groups)), sockets_(std::move(sockets)) {}

  /// Runs until SIGTERM or SIGINT, which must be blocked. Returns the exit status of the program.
  int run();

  /// The descriptors that the worker finds open.
  static constexpr int workerChannel = 3;
  static constexpr int workerAccesses = 4;
  static constexpr int workerChanges = 5;
  static constexpr int workerSockets = 6;
  /// The option of the worker; the name of the mechanism follows it.
  static constexpr const char* workerOption = "--worker";

 private:
  /// The kernel knows an event by the number of its descriptor, which has to stay in use until the
  /// event is answered. Each document has one open file behind these numbers.
  struct Document {
    FileDescriptor file;
    std::size_t events = 0;
  };
  struct Pending {
    FileDescriptor number;
    Message message;  // as the worker gets it
    FileIdentity document;
  };

  void startWorker();
  void reapWorker();
  void readEvents();
  void keep(AccessEvent event);
  void sendEvents();
  void receive();
  void answer(int number, int errnum);
  void beginStop();
  void finish();

  Groups groups_;
  std::vector<FileDescriptor> sockets_;
  std::map<int, Pending> pending_;  // by the number of the event's descriptor
  std::map<FileIdentity, Document> documents_;
  std::deque<int> unsent_;
  EventChannel channel_;
  pid_t worker_ = -1;
  FileDescriptor workerEnd_;                         // pidfd_open(2)
  std::chrono::steady_clock::time_point nextStart_;  // not before
  bool isReady_ = false;
  bool isStopping_ = false;
  bool isStopped_ = false;
};

}  // namespace qx::kernel
