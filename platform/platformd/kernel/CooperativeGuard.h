#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/files/Inotify.h"
#include "platform/platformd/DocSourceRegistry.h"
#include "platform/queue/WorkQueue.h"

namespace qx::kernel {

/// Returns whether the path leads to a file of that user without any permissions, which is what a
/// placeholder is where nobody can keep its readers waiting. The user, who may restore them, may
/// have it provided.
bool isHiddenFile(const std::string& path, uid_t user);
/// Returns whether a file (O_PATH will do) without permissions has the mark of a placeholder. What
/// the mark says can then be read only by those who pass over permissions.
bool isHiddenPlaceholder(int file, const struct stat& status);

/// Where the kernel asks nobody (without CAP_SYS_ADMIN), a placeholder has no permissions while it
/// is one, so that a program gets EACCES and never zeros. Providers see to that. This class is the
/// net for those that do not: it takes the permissions off the placeholders that it finds in the
/// trees of the doc sources, or that appear there, and remembers them in the file "concealed" of
/// the service's state. A provider that brings content in by a new file renames it over the
/// placeholder. When a provider filled the very file, the file gets its permissions back.
///
/// It serves the user as whom it runs, and touches only that user's files. Held only by shared
/// pointers; everything runs on one serial queue.
class CooperativeGuard final : public DocSourceObserver,
                               public std::enable_shared_from_this<CooperativeGuard> {
 public:
  /// `state` is the directory of the service's state; without one, modes are forgotten at the end.
  static std::shared_ptr<CooperativeGuard> start(FileDescriptor state);
  explicit CooperativeGuard(FileDescriptor state);

  // DocSourceObserver
  void docSourceAdded(const DocSource& source, std::function<void()> onWatched) override;
  void docSourceRemoved(const DocSource& /*source*/) override {}

 private:
  class Input;

  void readEvents();
  void look(const std::string& directory);
  void consider(int file, const struct stat& status, bool isClosed);
  /// Writes what is remembered to the disk, before anything is taken away.
  bool write() const;

  const std::shared_ptr<WorkQueue> queue_ = WorkQueue::serial("CooperativeGuard queue");
  const FileDescriptor state_;
  // Used on the queue.
  Inotify inotify_;
  std::map<int, std::pair<std::string, Inotify::Watch>> watches_;  // directories
  std::map<std::string, mode_t> modes_;                            // by the words that name inodes
};

}  // namespace qx::kernel
