#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/kernel/Claims.h"
#include "platform/platformd/kernel/FanotifyGroup.h"
#include "platform/platformd/kernel/FinishedWrites.h"
#include "platform/platformd/kernel/GuardedTrees.h"
#include "platform/queue/WorkQueue.h"

namespace qx::kernel {

/// What happened in the trees, after it did: keeps the marks where they belong, follows what is
/// moved out, takes the sign off a placeholder that a program emptied, and tells the doc sources
/// which of their files others have written.
///
/// Everything runs on the coordinator's queue.
class Changes {
 public:
  using OnQueue = std::function<void(WorkQueue::Task)>;
  using OnArrival = std::function<void(const std::optional<FileIdentity>&)>;
  using OnProgress = std::function<void(const FileIdentity&)>;
  using Slowly = std::function<void(uid_t, WorkQueue::Task)>;

  /// What is handed over must outlive this, but for the registry. `onQueue` comes back to the
  /// queue, `slowly` runs what takes long, elsewhere, one thing of a user after the other, and
  /// keeps all of this alive meanwhile; `onArrival` is called with a placeholder that has come to a
  /// place in a tree, and with nothing when a directory has, `onProgress` when the attributes of
  /// one have changed, `onLoss` when the kernel has lost events.
  Changes(std::shared_ptr<DocSourceRegistry> registry, const ChangeGroup& group,
          GuardedTrees& trees, Claims& claims, OnArrival onArrival, OnProgress onProgress,
          std::function<void()> onLoss, OnQueue onQueue, Slowly slowly);

  /// Takes what the kernel has told of until now.
  void drain();

 private:
  void apply(const ChangeEvent& change, const std::optional<GuardedTrees::Directory>& directory);
  void applyToFile(const ChangeEvent& change, const GuardedTrees::Directory& directory,
                   const FileDescriptor& file, const struct stat& status);
  /// Marks a directory that came into a tree; what somebody else put into it before counts as
  /// written.
  void look(FileDescriptor directory, uid_t owner, std::optional<pid_t> maker);
  void report(const FileDescriptor& file, const std::string& path, pid_t writer);

  const std::shared_ptr<DocSourceRegistry> registry_;
  const ChangeGroup& group_;
  GuardedTrees& trees_;
  Claims& claims_;
  const OnArrival onArrival_;
  const OnProgress onProgress_;
  const std::function<void()> onLoss_;
  const OnQueue onQueue_;
  const Slowly slowly_;
  FinishedWrites writes_;
};

}  // namespace qx::kernel
