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

/// Holds on to the item that a URL leads to below a directory, and tells afterwards whether the URL
/// meant that very file all the time: for a decision that is made about a file in one process and
/// carried out under its name in another. Names on the way are watched (inotify(7)), each before
/// what stands under it is looked at, so that what was exchanged and exchanged back is noticed too:
/// from the root for an item whose own URL is kept, else from the directory. Trusted is whoever may
/// change directories that this process may neither read nor write, and, where a link lies on the
/// item's way, what lies above the directory.
///
/// One thread at a time; blocks on the file system.
class ItemGuard {
 public:
  /// Absent when the item is not there or not below the directory (by identity, so that a bind
  /// mount of it will do), or cannot be watched.
  static std::unique_ptr<ItemGuard> hold(const std::optional<URL>& directory,
                                         const std::optional<URL>& item);

  ItemGuard(const ItemGuard&) = delete;
  ItemGuard& operator=(const ItemGuard&) = delete;

  /// The item's own URL as it was given, unless a symbolic link lies on its way, which might lead
  /// elsewhere at each look: then the directory's URL and the names below it.
  const URL& url() const { return url_; }

  /// Whether this URL leads to the same file now.
  bool isAlso(const std::optional<URL>& url) const;

  /// Whether nothing was made, renamed or removed under the names on the way since hold().
  bool isUntouched();

 private:
  ItemGuard(URL url, FileDescriptor directory) : url_(std::move(url)) {
    directories_.push_back(std::move(directory));
  }
  /// Watches and opens what stands under the name; false when that is not possible.
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
