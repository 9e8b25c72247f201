#include "platform/files/ItemGuard.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace qx {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t entryMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

bool isSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool isReachedWithoutLinks(const std::string& path) {
  open_how how{O_PATH | O_CLOEXEC, 0, RESOLVE_NO_SYMLINKS};
  return FileDescriptor(
             static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)))
             .get() >= 0;
}

}  // namespace

std::unique_ptr<ItemGuard> ItemGuard::hold(const std::optional<URL>& directory,
                                           const std::optional<URL>& item) {
  const auto directoryPath = directory ? directory->path() : std::nullopt;
  const auto itemPath = item ? item->path() : std::nullopt;
  struct stat wanted;
  if (!directoryPath || !itemPath || ::stat(directoryPath->c_str(), &wanted) != 0) return nullptr;
  std::error_code problem;
  const fs::path there = fs::canonical(*itemPath, problem);
  if (problem) return nullptr;

  // Upwards until the directory, under whatever name it goes there.
  std::vector<std::string> names;
  fs::path above = there;
  for (struct stat status;;) {
    if (!above.has_relative_path()) return nullptr;
    names.push_back(above.filename());
    above = above.parent_path();
    if (::stat(above.c_str(), &status) != 0) return nullptr;
    if (isSame(status, wanted)) break;
  }
  std::reverse(names.begin(), names.end());

  fs::path direct = *directoryPath;
  for (const auto& name : names) direct /= name;
  std::unique_ptr<ItemGuard> guard(
      new ItemGuard(isReachedWithoutLinks(*itemPath) ? *item : URL::fileURL(direct.string()),
                    FileDescriptor(::open(above.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))));
  struct stat status;
  if (!guard->directories_.front() || ::fstat(guard->directories_.front().get(), &status) != 0 ||
      !isSame(status, wanted)) {
    return nullptr;
  }
  for (const auto& name : names) {
    if (!guard->descend(name, &name == &names.back())) return nullptr;
  }
  return guard;
}

bool ItemGuard::descend(const std::string& name, bool isLast) {
  const int directory = directories_.back().get();
  auto watch = inotify_.watch("/proc/self/fd/" + std::to_string(directory), entryMask);
  if (!watch) return false;
  steps_.push_back({std::move(watch), name});
  const int flags = O_PATH | O_NOFOLLOW | O_CLOEXEC | (isLast ? 0 : O_DIRECTORY);
  FileDescriptor entry(::openat(directory, name.c_str(), flags));
  struct stat status;
  if (!entry || ::fstat(entry.get(), &status) != 0 || S_ISLNK(status.st_mode)) return false;
  if (isLast) {
    item_ = std::move(entry);
  } else {
    directories_.push_back(std::move(entry));
  }
  return true;
}

bool ItemGuard::isAlso(const std::optional<URL>& url) const {
  const auto path = url ? url->path() : std::nullopt;
  struct stat held, other;
  return path && ::fstat(item_.get(), &held) == 0 && ::stat(path->c_str(), &other) == 0 &&
         isSame(held, other);
}

bool ItemGuard::isUntouched() {
  for (const auto& event : inotify_.read()) {
    const bool concerns =
        event.isOverflow() || std::any_of(steps_.begin(), steps_.end(), [&](const Step& step) {
          return step.watch.number() == event.watch &&
                 (event.name.empty() || event.name == step.name);
        });
    // What was noticed once stays noticed.
    if (concerns) steps_.clear();
  }
  return !steps_.empty();
}

}  // namespace qx
