#include "platform/files/ItemGuard.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <utility>

namespace qx {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t entryMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

bool isSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// Who may change the names in a directory that this process may neither read nor write is trusted.
bool isOutOfReach(const std::string& directory) {
  return errno == EACCES && ::access(directory.c_str(), W_OK) != 0;
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

  // Whether there is a link on the way is told by what was resolved, not by another look. An item
  // without one is held on to from the root on: what lies above the directory may be changed by
  // whoever it belongs to.
  fs::path given = fs::path(*itemPath).lexically_normal();
  if (!given.has_filename()) given = given.parent_path();
  const bool hasLinks = given != there;
  fs::path direct = *directoryPath;
  for (const auto& name : names) direct /= name;
  std::unique_ptr<ItemGuard> guard(new ItemGuard(
      hasLinks ? URL::fileURL(direct.string()) : *item,
      FileDescriptor(::open(hasLinks ? above.c_str() : "/", O_PATH | O_DIRECTORY | O_CLOEXEC))));
  if (!hasLinks) names.assign(std::next(there.begin()), there.end());
  for (const auto& name : names) {
    if (!guard->descend(name, &name == &names.back())) return nullptr;
  }
  const bool isBelow =
      std::any_of(guard->directories_.begin(), guard->directories_.end(), [&](const auto& each) {
        struct stat status;
        return ::fstat(each.get(), &status) == 0 && isSame(status, wanted);
      });
  return isBelow ? std::move(guard) : nullptr;
}

bool ItemGuard::descend(const std::string& name, bool isLast) {
  const int directory = directories_.back().get();
  const std::string path = "/proc/self/fd/" + std::to_string(directory);
  auto watch = inotify_.watch(path, entryMask);
  if (!watch && !isOutOfReach(path)) return false;
  if (watch) steps_.push_back({std::move(watch), name});
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
    if (concerns) isTouched_ = true;
  }
  return !isTouched_;
}

}  // namespace qx
