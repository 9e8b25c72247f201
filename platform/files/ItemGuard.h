#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/base/URL.h"
#include "platform/files/Inotify.h"

namespace qx {

/// Holds on to the item to which a URL leads below a directory, and tells afterwards whether the
/// URL meant that very file all the time. It is for a decision that is made about a file in one
/// process and carried out under its name in another. The names on the way are watched
/// (inotify(7)), each before what stands under it is looked at, so that an exchange that was undone
/// is noticed too. Where the item's own URL is kept they are watched from the root, otherwise from
/// the directory.
///
/// Two things are trusted: whoever may change directories that this process may neither read nor
/// write; and, where a link lies on the item's way, what lies above the directory.
///
/// Used by one thread at a time; blocks on the file system.
class ItemGuard {
 public:
  /// Absent when the item is not there, is not below the directory (by identity, so that a bind
  /// mount of the directory will do), or cannot be watched.
  static std::unique_ptr<ItemGuard> hold(const std::optional<URL>& directory,
                                         const std::optional<URL>& item);

  ItemGuard(const ItemGuard&) = delete;
  ItemGuard& operator=(const ItemGuard&) = delete;

  /// The item's own URL as it was given. If a symbolic link lies on its way, which might lead
  /// elsewhere at each look, it is the directory's URL with the names below it.
  const URL& url() const { return url_; }

  /// Returns whether this URL leads to the same file now.
  bool isAlso(const std::optional<URL>& url) const;

  /// Returns whether nothing was made, renamed or removed under the names on the way since hold().
  bool isUntouched();

 private:
  ItemGuard(URL url, FileDescriptor directory) : url_(std::move(url)) {
    directories_.push_back(std::move(directory));
  }
  /// Watches and opens what stands under the name. Returns false when that is not possible.
  bool descend(const std::string& name, bool isLast);

  struct Step {
    Inotify::Watch watch;
    std::string name;
  };

  URL url_;
  Inotify inotify_;
  std::vector<Step> steps_;  // before the instance that they are watches of goes
  std::vector<FileDescriptor> directories_;
  FileDescriptor item_;
  bool isTouched_ = false;  // what was noticed once stays noticed
};

}  // namespace qx
