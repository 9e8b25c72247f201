#pragma once

#include <functional>
#include <memory>
#include <string>

namespace qx {

/// Tells when entries of one directory appear, change or go (inotify(7)). A directory that does not
/// exist yet, or goes and comes back, is waited for through its nearest existing ancestor; its
/// appearance counts as a change.
///
/// The callback runs on a thread of the reactor, never two at a time for one watch. It is called
/// with the entry's name for each change of an entry that is complete, and with an empty name and
/// `unknown` when the directory itself came or went, or events were lost. After the watch is
/// destroyed no call begins; one that has begun may still be running.
class DirectoryWatch {
 public:
  enum class Change {
    /// The entry was made in one step: a link, a directory, anything that is no regular file. A
    /// regular file that was made and has content already looks like that too; its closing is
    /// reported as well.
    made,
    /// A regular file was closed after writing, or anything was moved in.
    complete,
    /// The entry was deleted or moved out.
    gone,
    unknown,
  };
  using Callback = std::function<void(const std::string& name, Change change)>;

  /// Returns null when the kernel has no watch to give. What changes after the return is reported.
  static std::unique_ptr<DirectoryWatch> start(std::string directory, Callback callback);
  /// For callers to whom it is enough that something changed.
  static std::unique_ptr<DirectoryWatch> start(
      std::string directory, std::function<void(const std::string& name)> callback);

  virtual ~DirectoryWatch() = default;
};

}  // namespace qx
