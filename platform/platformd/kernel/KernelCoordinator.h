#pragma once

#include <sys/eventfd.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/kernel/Changes.h"
#include "platform/platformd/kernel/Claims.h"
#include "platform/platformd/kernel/EventChannel.h"
#include "platform/platformd/kernel/FanotifyGroup.h"
#include "platform/platformd/kernel/GuardedTrees.h"
#include "platform/platformd/kernel/Programs.h"
#include "platform/platformd/kernel/Readers.h"
#include "platform/platformd/kernel/TreeWatch.h"
#include "platform/queue/WorkQueue.h"

namespace qx::kernel {

/// Coordinates programs that know nothing of it: has the files that they access provided first, and
/// tells of the files that they have written. This is the worker's part; the groups are the
/// holder's.
///
/// It owns the parts and runs them: which trees are guarded (GuardedTrees), who claims them
/// (Claims), who waits (Readers), and what happened (Changes). Readers, Changes and Claims live on
/// one serial queue. Directories, which may take long, are looked through on a queue for each user,
/// so that nobody waits for another's. Held only by shared pointers.
class KernelCoordinator final : public DocSourceObserver,
                                public std::enable_shared_from_this<KernelCoordinator> {
 public:
  /// `mask` is what accesses are marked for where the file system supports it: preAccess or
  /// openPermission. `mostPinned` is how many of one user's placeholders may stay in memory for
  /// their marks.
  KernelCoordinator(std::shared_ptr<DocSourceRegistry> registry, EventChannel holder,
                    AccessGroup accesses, ChangeGroup changes, std::uint64_t mask, GuardList list,
                    std::size_t mostPinned = PinnedInodes::usual);

  /// Takes events, and begins to guard what is on the list. When all of its directories have marks,
  /// the way in which programs are coordinated is announced; when all of it is guarded, the holder
  /// is told that the service is ready. `onStop` is called, on the queue, when the holder asks for
  /// the end or is gone.
  void start(std::function<void()> onStop);

  /// Makes sure that nobody reads zeros when the groups close, unless they stay open elsewhere.
  /// This is the last call.
  void stop();

  // DocSourceObserver
  void docSourceAdded(const DocSource& source, std::function<void()> onWatched) override;
  void docSourceRemoved(const DocSource& source) override;

 private:
  class Input;

  void onQueue(WorkQueue::Task task);
  void slowly(uid_t user, WorkQueue::Task task);
  // Called on the queue.
  void announce();
  void receive();
  void drain(bool all);
  void drainSome() { drain(false); }
  /// Looks through a user's trees again, or through all.
  void lookAtAll(std::optional<uid_t> user);
  // Called on namesQueue_.
  void drainNames();
  // Called on a thread of its own.
  void answerWithoutHolder();
  // Called on the user's queue.
  void claim(const DocSource& source, const std::function<void()>& onWatched);
  void release(uid_t owner, const std::string& path);
  void lookAgain(const std::string& path);

  const std::shared_ptr<DocSourceRegistry> registry_;
  const EventChannel holder_;
  const AccessGroup accesses_;
  const ChangeGroup changeGroup_;
  const std::uint64_t mask_;
  const std::shared_ptr<WorkQueue> namesQueue_ = WorkQueue::serial("KernelCoordinator names");
  const std::shared_ptr<WorkQueue> queue_ = WorkQueue::serial("KernelCoordinator queue");
  const std::shared_ptr<Programs> programs_ = Programs::start();
  GuardedTrees trees_;
  std::unique_ptr<TreeWatch> watch_;

  /// Readable when this process has nothing left to do, and the future is there when nobody is left
  /// who waits.
  const FileDescriptor isOver_{eventfd(0, EFD_CLOEXEC)};
  std::promise<void> allAnswered_;

  std::mutex mutex_;
  std::map<uid_t, std::shared_ptr<WorkQueue>> slowQueues_;  // under the mutex

  bool looksAtNamesSoon_ = false;  // used on namesQueue_

  std::atomic<bool> isWithoutHolder_{false};
  // Used on the queue.
  std::function<void()> onStop_;
  bool groupsStay_ = false;
  bool isStopping_ = false;
  bool isLookingSoon_ = false;
  Claims claims_;
  std::unique_ptr<Changes> changes_;
  std::unique_ptr<Readers> readers_;
};

}  // namespace qx::kernel
