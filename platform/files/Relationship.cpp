// How an item lies to a directory. The item's path is walked one component at a time, as the kernel
// would walk it, with the identity (device, inode) of every directory on the way kept on a stack:
// a symbolic link puts its target's components in front of what is left, ".." takes the last
// directory off. The first component that does not exist ends what can be looked up; what follows
// is counted by name, and a ".." there takes the last name back before it leaves a directory that
// exists. At the end the stack says whether the directory is on the way to the item.
//
// Most paths are plain: no links, nothing missing but perhaps the last name. The kernel walks such
// a path in one step (openat2(2)), and the directories are looked at from its end upwards, one
// after the other, until one of them is the directory asked for.

#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"

namespace qx::FileManager {
namespace {

/// As many links as the kernel follows (path_resolution(7)).
constexpr int maximumLinks = 40;

}  // namespace

class ItemPlace::Walk {
 public:
  /// Walks an absolute path; the errno of what stood in the way, or 0.
  int run(const std::string& path) {
    if (const int failed = toRoot()) return failed;
    left_ = path;
    while (!left_.empty()) {
      const std::size_t begin = std::min(left_.find_first_not_of('/'), left_.size());
      const std::size_t end = std::min(left_.find('/', begin), left_.size());
      const std::string component = left_.substr(begin, end - begin);
      left_.erase(0, end);
      if (component.empty() || component == ".") continue;
      if (const int failed = component == ".." ? up() : down(component)) return failed;
    }
    return 0;
  }

  std::vector<Identity> takeDirectories() { return std::move(directories_); }
  std::size_t namesBelow() const { return namesBelow_; }

 private:
  int toRoot() {
    namesBelow_ = 0;
    directories_.clear();
    return enter(FileDescriptor(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)));
  }

  int enter(FileDescriptor directory) {
    struct stat status;
    if (!directory || ::fstat(directory.get(), &status) != 0) return errno;
    return enter(std::move(directory), status);
  }
  int enter(FileDescriptor directory, const struct stat& status) {
    directories_.push_back({status.st_dev, status.st_ino, status.st_uid});
    current_ = std::move(directory);
    return 0;
  }

  int up() {
    if (namesBelow_ > 0) {
      --namesBelow_;
      return 0;
    }
    if (directories_.size() == 1) return 0;
    directories_.resize(directories_.size() - 2);
    return enter(FileDescriptor(::openat(current_.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC)));
  }

  int down(const std::string& name) {
    if (namesBelow_ > 0) {
      ++namesBelow_;
      return 0;
    }
    FileDescriptor entry(::openat(current_.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!entry) {
      if (errno != ENOENT) return errno;
      ++namesBelow_;
      return 0;
    }
    struct stat status;
    if (::fstat(entry.get(), &status) != 0) return errno;
    if (S_ISLNK(status.st_mode)) return follow(entry);
    if (S_ISDIR(status.st_mode)) return enter(std::move(entry), status);
    // A file is a name in its directory; nothing below it can exist.
    ++namesBelow_;
    return 0;
  }

  int follow(const FileDescriptor& link) {
    if (++links_ > maximumLinks) return ELOOP;
    // The links of procfs lead elsewhere than their text says (proc(5)), even into another root.
    struct statfs system;
    if (::fstatfs(link.get(), &system) != 0) return errno;
    if (system.f_type == PROC_SUPER_MAGIC) return ELOOP;
    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(link.get(), "", target, sizeof target);
    if (length < 0) return errno;
    if (length == 0) return ENOENT;
    left_.insert(0, target, static_cast<std::size_t>(length));
    return target[0] == '/' ? toRoot() : 0;
  }

  FileDescriptor current_;
  std::vector<Identity> directories_;  // from the root to current_
  std::size_t namesBelow_ = 0;         // names after current_ that are no directories
  std::string left_;
  int links_ = 0;
};

bool ItemPlace::goStraight() {
  const std::size_t end = path_->find_last_not_of('/');
  if (path_->front() != '/' || end == std::string::npos) return false;
  const std::size_t slash = path_->rfind('/', end);
  const std::string name = path_->substr(slash + 1, end - slash);
  if (name == "." || name == "..") return false;
  // Fails for whatever is not plain, an older kernel included (openat2(2)).
  const std::string parent = path_->substr(0, slash + 1);
  open_how how{O_PATH | O_DIRECTORY | O_CLOEXEC, 0, RESOLVE_NO_SYMLINKS};
  FileDescriptor directory(
      static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, parent.c_str(), &how, sizeof how)));
  if (!directory) return false;
  struct stat status;
  if (::fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) return false;
    namesBelow_ = 1;
  } else if (S_ISLNK(status.st_mode)) {
    return false;
  } else if (S_ISDIR(status.st_mode)) {
    directories_.push_back({status.st_dev, status.st_ino, status.st_uid});
  } else {
    namesBelow_ = 1;
  }
  bottom_ = std::move(directory);
  above_ = ".";
  return true;
}

Result<bool> ItemPlace::climb() {
  if (!bottom_) return false;
  struct stat status;
  if (::fstatat(bottom_.get(), above_.c_str(), &status, 0) != 0) return fileError(errno, item_);
  const Identity next{status.st_dev, status.st_ino, status.st_uid};
  // The root directory is its own parent.
  if (above_ != "." && next == directories_.back()) {
    bottom_.reset();
    return false;
  }
  directories_.push_back(next);
  above_ += "/..";
  return true;
}

int ItemPlace::walk() {
  if (path_->size() >= PATH_MAX) return ENAMETOOLONG;
  if (goStraight()) return 0;
  Walk walk;
  const int failed = walk.run(*path_);
  directories_ = walk.takeDirectories();
  std::reverse(directories_.begin(), directories_.end());
  namesBelow_ = walk.namesBelow();
  return failed;
}

Result<DirectoryRelationship> ItemPlace::relationshipToDirectoryAtURL(
    const std::optional<URL>& directory) {
  const auto directoryPath = directory ? directory->path() : std::nullopt;
  if (!directoryPath) return fileError(EINVAL, directory);
  if (!path_) return fileError(EINVAL, item_);

  struct stat status;
  if (::stat(directoryPath->c_str(), &status) != 0) return fileError(errno, directory);
  if (!S_ISDIR(status.st_mode)) return fileError(ENOTDIR, directory);

  if (!walked_) walked_ = walk();
  if (*walked_ != 0) {
    // "No such file" is kept for the directory; here it means that one went during the walk.
    return fileError(*walked_ == ENOENT ? ESTALE : *walked_, item_);
  }
  const Identity wanted{status.st_dev, status.st_ino, status.st_uid};
  for (std::size_t i = 0;; ++i) {
    if (i == directories_.size()) {
      const auto isThereMore = climb();
      if (!isThereMore) return isThereMore.error();
      if (!*isThereMore) return DirectoryRelationship::other;
    }
    if (directories_[i] == wanted) {
      return i == 0 && namesBelow_ == 0 ? DirectoryRelationship::same
                                        : DirectoryRelationship::contains;
    }
  }
}

Result<std::vector<ItemPlace::Identity>> ItemPlace::directories() {
  if (!path_) return fileError(EINVAL, item_);
  if (!walked_) walked_ = walk();
  if (*walked_ != 0) return fileError(*walked_, item_);
  for (;;) {
    const auto isThereMore = climb();
    if (!isThereMore) return isThereMore.error();
    if (!*isThereMore) break;
  }
  const bool isDirectory = namesBelow_ == 0;
  return std::vector<Identity>(directories_.begin() + (isDirectory ? 1 : 0), directories_.end());
}

Result<DirectoryRelationship> getRelationship_ofDirectoryAtURL_toItemAtURL(
    const std::optional<URL>& directory, const std::optional<URL>& item) {
  return ItemPlace(item).relationshipToDirectoryAtURL(directory);
}

}  // namespace qx::FileManager
