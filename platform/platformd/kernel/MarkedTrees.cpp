// The marks of the watched trees.

#include "platform/platformd/kernel/MarkedTrees.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/log/Log.h"
#include "platform/platformd/kernel/Placeholder.h"

namespace qx::kernel {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

/// Tells of each entry of an open directory but the two that every one has.
void eachEntry(const FileDescriptor& directory,
               const std::function<void(const char* name, ino_t inode)>& visit) {
  FileDescriptor copy(openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseDirectory> entries(copy ? fdopendir(copy.get()) : nullptr);
  if (!entries) return;
  copy.release();
  while (const dirent* entry = readdir(entries.get())) {
    const std::string_view name(entry->d_name);
    if (name != "." && name != "..") visit(entry->d_name, entry->d_ino);
  }
}

FileDescriptor openDirectory(const std::string& path) {
  return FileDescriptor(
      open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

/// Whether the path itself, not a link at its end, is that file.
bool leadsTo(const std::string& path, const FileIdentity& file) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && identityOf(status) == file;
}

}  // namespace

std::uint64_t MarkedTrees::markDirectory(int directory, int& errnum) {
  std::uint64_t mask = best_;
  errnum = accesses_.watchDirectory(directory, mask);
  if (mask == preAccess && (errnum == EINVAL || errnum == EOPNOTSUPP)) {
    mask = openPermission;
    errnum = accesses_.watchDirectory(directory, mask);
  }
  if (errnum != 0) return 0;
  // Without this one finished writes are not heard of, which is no reason to show zeros.
  changes_.watchDirectory(directory);
  return mask;
}

MarkedTrees::Scan MarkedTrees::mark(const std::string& directory, Maker maker) {
  Scan scan;
  const auto leaveOut = [&](const std::string& path, int errnum) {
    if (path == directory) {
      scan.errnum = errnum;
    } else if (errnum != ENOENT && errnum != ENOTDIR && errnum != ELOOP) {  // it is there
      DS_LOG("[ERROR] A directory of documents is not watched. Error: %@",
             posixError(errnum, path + " cannot be marked"));
    }
  };
  std::vector<std::string> open{directory};
  while (!open.empty()) {
    const std::string path = std::move(open.back());
    open.pop_back();
    const FileDescriptor descriptor = openDirectory(path);
    if (!descriptor) {
      leaveOut(path, errno);
      continue;
    }
    int errnum = 0;
    const std::uint64_t mask = markDirectory(descriptor.get(), errnum);
    if (mask == 0) {
      leaveOut(path, errnum);
      continue;
    }
    if (path == directory) scan.mask = mask;
    ++scan.directories;
    struct stat status;
    if (fstat(descriptor.get(), &status) == 0) {
      const std::lock_guard lock(mutex_);
      directories_[identityOf(status)] = path;
      if (auto key = ChangeGroup::keyOf(descriptor.get()); !key.empty()) paths_[key] = path;
    }
    eachEntry(descriptor, [&](const char* name, ino_t) {
      struct stat entry;
      if (fstatat(descriptor.get(), name, &entry, AT_SYMLINK_NOFOLLOW) != 0) return;
      const std::string entryPath = path + "/" + name;
      if (S_ISDIR(entry.st_mode)) open.push_back(entryPath);
      if (!S_ISREG(entry.st_mode)) return;
      const std::lock_guard lock(mutex_);
      if (!isConcealing_) Placeholder::reveal(entryPath, entry);
      const bool isForeign = maker == Maker::somebodyElse;
      if (isForeign && Placeholder::ofPath(entryPath, entry) == Placeholder::State::placeholder) {
        Placeholder::setLocal(entryPath, true);
      }
      if (examineLocked(entryPath, entry, true)) {
        ++scan.placeholders;
      } else if (isForeign) {
        scan.contents.push_back(entryPath);
      }
    });
  }
  return scan;
}

std::optional<std::string> MarkedTrees::directoryWithKey(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = paths_.find(key);
  return found == paths_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> MarkedTrees::pathOf(int file, const struct stat& status) const {
  const FileIdentity identity = identityOf(status);
  const std::lock_guard lock(mutex_);
  if (const auto known = placeholders_.find(identity);
      known != placeholders_.end() && leadsTo(known->second, identity)) {
    return known->second;
  }
  // As it was opened, where that can be seen from here; its directory may have another path.
  std::array<char, PATH_MAX> link{};
  const std::string self = "/proc/self/fd/" + std::to_string(file);
  const ssize_t size = readlink(self.c_str(), link.data(), link.size());
  const std::string opened(link.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  const auto slash = opened.rfind('/');
  if (slash != std::string::npos) {
    struct stat parent;
    if (stat(opened.substr(0, slash + 1).c_str(), &parent) == 0) {
      const auto directory = directories_.find(identityOf(parent));
      if (directory != directories_.end()) {
        std::string path = directory->second + opened.substr(slash);
        if (leadsTo(path, identity)) return path;
      }
    }
  }
  // By another name, or through a mount that is not to be seen from here.
  std::optional<std::string> found;
  for (const auto& entry : directories_) {
    if (found) break;
    if (entry.first.device != identity.device) continue;
    const std::string& path = entry.second;
    const FileDescriptor descriptor = openDirectory(path);
    if (!descriptor) continue;
    eachEntry(descriptor, [&](const char* name, ino_t inode) {
      if (inode == identity.inode && leadsTo(path + "/" + name, identity))
        found = path + "/" + name;
    });
  }
  return found;
}

bool MarkedTrees::examineLocked(const std::string& path, const struct stat& status, bool isClosed) {
  const FileIdentity identity = identityOf(status);
  times_[identity] = {{status.st_mtim.tv_sec, status.st_mtim.tv_nsec}, round_};
  if (Placeholder::ofPath(path, status) == Placeholder::State::content) {
    placeholders_.erase(identity);
    return false;
  }
  const bool isNew = placeholders_.insert_or_assign(identity, path).second;
  if (isNew && accesses_.watchFile(AT_FDCWD, path, best_) != 0 && best_ == preAccess) {
    accesses_.watchFile(AT_FDCWD, path, openPermission);
  }
  if (isClosed) Placeholder::anchor(path, status);
  return true;
}

bool MarkedTrees::examine(const std::string& path, bool isClosed) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  const std::lock_guard lock(mutex_);
  return examineLocked(path, status, isClosed);
}

void MarkedTrees::examineForeign(const std::string& path, const struct stat& status,
                                 bool isModified) {
  const std::lock_guard lock(mutex_);
  if (Placeholder::ofPath(path, status) == Placeholder::State::placeholder &&
      (isModified || !placeholders_.contains(identityOf(status)))) {
    Placeholder::setLocal(path, true);
  }
  // The time is that of the last closing, until this one has been told.
  if (!isModified) examineLocked(path, status, false);
}

void MarkedTrees::settle(int file, const struct stat& status, std::uint64_t mask) {
  {
    const std::lock_guard lock(mutex_);
    if (placeholders_.erase(identityOf(status)) != 0) accesses_.unwatchFile(file, mask);
  }
  accesses_.ignoreFile(file, mask);
}

bool MarkedTrees::hasChanged(const struct stat& status) {
  const std::pair<std::int64_t, std::int64_t> time{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
  const std::lock_guard lock(mutex_);
  const auto [entry, isNew] = times_.try_emplace(identityOf(status), Time{time, round_});
  return !isNew && std::exchange(entry->second.modified, time) != time;
}

bool MarkedTrees::isCrowded() {
  const std::lock_guard lock(mutex_);
  if (times_.size() < crowd_) return false;
  crowd_ = std::numeric_limits<std::size_t>::max();
  return true;
}

void MarkedTrees::forgetGone() {
  std::map<FileIdentity, std::string> directories;
  {
    const std::lock_guard lock(mutex_);
    directories = directories_;
    ++round_;
  }
  std::set<FileIdentity> living;
  for (const auto& entry : directories) {
    const FileIdentity& directory = entry.first;
    if (!leadsTo(entry.second, directory)) continue;
    living.insert(directory);
    eachEntry(openDirectory(entry.second), [&](const char*, ino_t inode) {
      living.insert({directory.device, inode});
    });
  }
  const std::lock_guard lock(mutex_);
  std::erase_if(times_, [&](const auto& entry) {
    return entry.second.round != round_ && !living.contains(entry.first);
  });
  for (const auto& directory : directories) {
    const auto known = directories_.find(directory.first);
    if (living.contains(directory.first) || known == directories_.end() || *known != directory) {
      continue;
    }
    directories_.erase(known);
    std::erase_if(paths_, [&](const auto& entry) { return entry.second == directory.second; });
  }
  std::erase_if(placeholders_, [&](const auto& entry) {
    return !living.contains(entry.first) && !leadsTo(entry.second, entry.first);
  });
  crowd_ = std::max(leastCrowd, 2 * times_.size());
}

std::size_t MarkedTrees::countOfFiles() const {
  const std::lock_guard lock(mutex_);
  return times_.size();
}

std::size_t MarkedTrees::conceal(std::vector<std::string> directories) {
  {
    const std::lock_guard lock(mutex_);
    isConcealing_ = true;
  }
  std::size_t concealed = 0;
  while (!directories.empty()) {
    const std::string directory = std::move(directories.back());
    directories.pop_back();
    const FileDescriptor descriptor = openDirectory(directory);
    if (!descriptor) continue;
    eachEntry(descriptor, [&](const char* name, ino_t) {
      struct stat status;
      const std::string path = directory + "/" + name;
      if (lstat(path.c_str(), &status) != 0) return;
      if (S_ISDIR(status.st_mode)) {
        directories.push_back(path);
      } else if (Placeholder::ofPath(path, status) != Placeholder::State::content &&
                 Placeholder::conceal(path, status)) {
        ++concealed;
      }
    });
  }
  return concealed;
}

}  // namespace qx::kernel
