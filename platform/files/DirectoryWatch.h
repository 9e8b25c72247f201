#pragma once

#include <functional>
#include <memory>
#include <string>

namespace qx {

/// Tells when entries of one directory appear, change or go (inotify(7)). A directory that does
/// not exist yet, or goes and comes back, is waited for through its nearest existing ancestor;
/// when it appears that counts as a change.
///
/// The callback runs on a thread of the reactor, never two at a time for one watch. It is called
/// with the entry's name for each change of an entry that is complete: a file closed after
/// writing, moved in or out, made, deleted; and with an empty name when the directory itself came,
/// went, or events were lost. After the watch is destroyed no call begins; one that has begun may
/// still be running.
class DirectoryWatch {
 public:
  using Callback = std::function<void(const std::string& name)>;

  /// Null when the kernel has no watch to give. What changes after the return is told.
  static std::unique_ptr<DirectoryWatch> start(std::string directory, Callback callback);

  virtual ~DirectoryWatch() = default;
};

}  // namespace qx
