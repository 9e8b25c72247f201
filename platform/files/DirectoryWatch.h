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
/// with the entry's name for each change of an entry that is complete, and with an empty name and
/// `unknown` when the directory itself came, went, or events were lost. After the watch is
/// destroyed no call begins; one that has begun may still be running.
class DirectoryWatch {
 public:
  enum class Change {
    /// Made in one step: linked, a directory, anything that is no regular file. So looks also a
    /// regular file that was made and has content already; its closing is told as well.
    made,
    /// A regular file closed after writing, or anything moved in.
    complete,
    /// Deleted or moved out.
    gone,
    unknown,
  };
  using Callback = std::function<void(const std::string& name, Change change)>;

  /// Null when the kernel has no watch to give. What changes after the return is told.
  static std::unique_ptr<DirectoryWatch> start(std::string directory, Callback callback);
  /// For whom it is enough that something changed.
  static std::unique_ptr<DirectoryWatch> start(
      std::string directory, std::function<void(const std::string& name)> callback);

  virtual ~DirectoryWatch() = default;
};

}  // namespace qx
