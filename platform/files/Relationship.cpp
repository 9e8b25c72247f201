// How an item lies to a directory. The item's path is walked one component at a time, as the kernel
// would walk it, with the identity (device, inode) of every directory on the way kept on a stack:
// a symbolic link puts its target's components in front of what is left, ".." takes the last
// directory off. The first component that does not exist ends what can be looked up; what follows
// is counted by name, and a ".." there takes the last name back before it leaves a directory that
// exists. At the end the stack says whether the directory is on the way to the item.

#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
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
    if (path.size() >= PATH_MAX) return ENAMETOOLONG;
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
    directories_.push_back({status.st_dev, status.st_ino});
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

int ItemPlace::walk() {
  Walk walk;
  const int failed = walk.run(*path_);
  directories_ = walk.takeDirectories();
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
  const auto found =
      std::find(directories_.begin(), directories_.end(), Identity{status.st_dev, status.st_ino});
  if (found == directories_.end()) return DirectoryRelationship::other;
  const bool isLast = found + 1 == directories_.end() && namesBelow_ == 0;
  return isLast ? DirectoryRelationship::same : DirectoryRelationship::contains;
}

Result<DirectoryRelationship> getRelationship_ofDirectoryAtURL_toItemAtURL(
    const std::optional<URL>& directory, const std::optional<URL>& item) {
  return ItemPlace(item).relationshipToDirectoryAtURL(directory);
}

std::optional<URL> itemURLBelowDirectory(const std::optional<URL>& directory,
                                         const std::optional<URL>& item) {
  const auto directoryPath = directory ? directory->path() : std::nullopt;
  const auto itemPath = item ? item->path() : std::nullopt;
  if (!directoryPath || !itemPath) return std::nullopt;
  std::error_code problem;
  const auto root = std::filesystem::canonical(*directoryPath, problem);
  if (problem) return std::nullopt;
  const auto there = std::filesystem::canonical(*itemPath, problem);
  if (problem) return std::nullopt;
  const auto below = there.lexically_relative(root);
  if (below.empty() || below == "." || *below.begin() == "..") return std::nullopt;
  // A URL that says so already stays as it is written.
  const auto direct = std::filesystem::path(*directoryPath) / below;
  std::filesystem::path given = *itemPath;
  if (!given.has_filename()) given = given.parent_path();
  return direct == given ? item : URL::fileURL(direct.string());
}

}  // namespace qx::FileManager
