#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/platformd/DocSourceRegistry.h"
#include "platform/platformd/kernel/Claims.h"
#include "platform/platformd/kernel/FanotifyGroup.h"
#include "platform/platformd/kernel/FinishedWrites.h"
#include "platform/platformd/kernel/GuardedTrees.h"
#include "platform/queue/WorkQueue.h"

namespace qx::kernel {

/// Deals with what happened in the trees after it happened. It keeps the marks where they belong,
/// follows what is moved out, removes the mark of a placeholder that a program emptied, and tells
/// the doc sources which of their files others have written.
///
/// Everything runs on the coordinator's queue.
class Changes {
 public:
  using OnQueue = std::function<void(WorkQueue::Task)>;
  using OnArrival = std::function<void(const std::optional<FileIdentity>&)>;
  using OnProgress = std::function<void(const FileIdentity&)>;
  using OnModified =
      std::function<void(pid_t program, const FileDescriptor& file, const struct stat& status)>;
  using Slowly = std::function<void(uid_t, WorkQueue::Task)>;
  /// Events of one user were lost, or of all.
  using OnLoss = std::function<void(std::optional<uid_t>)>;
  /// How much of one user's may be waiting to be looked at, each with a descriptor.
  static constexpr std::size_t mostOfOneUser = 256;

  /// What is handed over must outlive this. `onQueue` comes back to the queue. `slowly` runs what
  /// takes long elsewhere, one thing of a user after the other, and keeps all of this alive
  /// meanwhile. `onArrival` is called with a placeholder that has come to a place in a tree, and
  /// with nothing when a directory has. `onProgress` is called when the attributes of a placeholder
  /// have changed, `onModified` when a program that does not work for the doc source has changed
  /// the content of a file, and `onLoss` when the kernel has lost events, or one user's were too
  /// many.
  Changes(const ChangeGroup& group, GuardedTrees& trees, Claims& claims, OnArrival onArrival,
          OnProgress onProgress, OnModified onModified, OnLoss onLoss, OnQueue onQueue,
          Slowly slowly);

  /// Takes what the kernel has reported until now, or a few hundred of it: however many changes one
  /// user makes, programs that wait for a file do not wait until all of them were looked at.
  void drain(bool all);

 private:
  void apply(const ChangeEvent& change, const std::optional<GuardedTrees::Directory>& directory);
  void applyToFile(const ChangeEvent& change, const GuardedTrees::Directory& directory,
                   const FileDescriptor& file, const struct stat& status);
  /// Marks a directory that came into a tree. What somebody else put into it before counts as
  /// written.
  void look(FileDescriptor directory, uid_t owner, std::optional<pid_t> maker);
  /// Does the same where it takes long. Past the bound, everything of that user's is looked at
  /// instead.
  void later(uid_t user, WorkQueue::Task task);
  void tell(const GuardedTrees::Place& place, pid_t writer) const;
  bool isExempt(pid_t process, const std::optional<GuardedTrees::Place>& place);

  const ChangeGroup& group_;
  GuardedTrees& trees_;
  Claims& claims_;
  const OnArrival onArrival_;
  const OnProgress onProgress_;
  const OnModified onModified_;
  const OnLoss onLoss_;
  const OnQueue onQueue_;
  const Slowly slowly_;
  FinishedWrites writes_;
  struct Backlog {
    std::size_t tasks = 0;
    bool isLost = false;
  };
  std::map<uid_t, Backlog> backlogs_;
  /// What was found out about the events that are being taken, by process and directory.
  std::map<std::pair<pid_t, std::string>, bool> exempt_;
};

}  // namespace qx::kernel
