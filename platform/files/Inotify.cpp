// Watches on directories.
//
// A path is followed by watching, beside the directory, each of its ancestors for being moved or
// removed, and while the directory is missing the nearest existing ancestor for the entry that is
// the next step. Watches are put in place first and the path is looked at again after that, so
// that nothing happens unseen in between.

#include "platform/files/Inotify.h"

#include <errno.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace qx {
namespace {

constexpr std::uint32_t selfMask = IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t appearanceMask = IN_CREATE | IN_MOVED_TO | IN_ATTRIB;
/// A path that changes more often than this while it is looked at is looked at again at its next
/// event.
constexpr int attempts = 100;

/// The proper ancestors of an absolute path, nearest first.
std::vector<std::string> ancestorsOf(const std::string& path) {
  std::vector<std::string> ancestors;
  for (auto end = path.rfind('/'); end != std::string::npos && end > 0;
       end = path.rfind('/', end - 1)) {
    ancestors.push_back(path.substr(0, end));
  }
  if (path != "/") ancestors.emplace_back("/");
  return ancestors;
}

}  // namespace

bool Inotify::Event::isOverflow() const { return (mask & IN_Q_OVERFLOW) != 0; }

Inotify::Inotify(Removed removed)
    : flags_(IN_ONLYDIR | IN_MASK_ADD | (removed == Removed::ignored ? IN_EXCL_UNLINK : 0U)),
      descriptor_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

Inotify::Watch Inotify::watch(const std::string& directory, std::uint32_t mask) {
  {
    std::lock_guard lock(mutex_);
    ++adding_;
  }
  const int number = inotify_add_watch(descriptor_.get(), directory.c_str(), mask | flags_);
  const int reason = errno;
  {
    std::lock_guard lock(mutex_);
    --adding_;
    if (number >= 0) ++claims_[number];
    removeUnclaimed();
  }
  errno = reason;
  return number < 0 ? Watch() : Watch(this, number);
}

void Inotify::release(int number) {
  std::lock_guard lock(mutex_);
  auto claim = claims_.find(number);
  if (claim == claims_.end() || --claim->second > 0) return;
  claims_.erase(claim);
  unclaimed_.insert(number);
  removeUnclaimed();
}

void Inotify::removeUnclaimed() {
  if (adding_ > 0) return;
  for (const int number : unclaimed_) {
    if (!claims_.contains(number)) inotify_rm_watch(descriptor_.get(), number);
  }
  unclaimed_.clear();
}

std::vector<Inotify::Event> Inotify::read() {
  // Only what is there now: somebody who changes files without a pause must not keep the reader.
  int available = 0;
  if (ioctl(descriptor_.get(), FIONREAD, &available) != 0 || available <= 0) return {};
  std::vector<char> buffer(static_cast<std::size_t>(available));
  ssize_t length = 0;
  do {
    length = ::read(descriptor_.get(), buffer.data(), buffer.size());
  } while (length < 0 && errno == EINTR);
  std::vector<Event> events;
  for (std::size_t at = 0; length > 0 && at < static_cast<std::size_t>(length);) {
    inotify_event event;
    std::memcpy(&event, buffer.data() + at, sizeof event);
    const char* name = buffer.data() + at + sizeof event;
    events.push_back(
        {event.wd, event.mask, event.cookie, std::string(name, strnlen(name, event.len))});
    if (event.mask & IN_IGNORED) {
      std::lock_guard lock(mutex_);
      claims_.erase(event.wd);
    }
    at += sizeof event + event.len;
  }
  return events;
}

bool WatchedPath::isUnsettledBy(const Inotify::Event& event) const {
  if (event.isOverflow()) return true;
  if (event.watch == directory_.number()) {
    return event.name.empty() && (event.mask & (selfMask | IN_UNMOUNT | IN_IGNORED));
  }
  return std::any_of(ancestors_.begin(), ancestors_.end(), [&](const Inotify::Watch& ancestor) {
    return ancestor.number() == event.watch && (event.name.empty() || event.name == awaited_);
  });
}

Inotify::Watch WatchedPath::watch(const std::string& directory, std::uint32_t mask) const {
  if (!open_) return inotify_.watch(directory, mask);
  const FileDescriptor opened = open_(directory);
  if (!opened) return {};
  return inotify_.watch("/proc/self/fd/" + std::to_string(opened.get()), mask);
}

bool WatchedPath::isDirectory(const std::string& path) const {
  if (open_) return static_cast<bool>(open_(path));
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool WatchedPath::directoryIsStillThere() const {
  auto again = watch(path_, mask_ | selfMask);
  return again.number() == directory_.number();
}

void WatchedPath::establish() {
  const auto ancestors = ancestorsOf(path_);
  for (int attempt = 0; attempt < attempts; ++attempt) {
    ancestors_.clear();
    awaited_.clear();
    directory_ = watch(path_, mask_ | selfMask);
    int reason = directory_ ? 0 : errno;
    std::string missing = path_;
    for (const auto& ancestor : ancestors) {
      bool nearest = !directory_ && awaited_.empty();
      auto found = watch(ancestor, nearest ? selfMask | appearanceMask : selfMask);
      if (found && nearest) awaited_ = missing.substr(missing.rfind('/') + 1);
      if (found) ancestors_.push_back(std::move(found));
      if (awaited_.empty()) missing = ancestor;
    }
    if (directory_ ? directoryIsStillThere() : !isDirectory(missing)) return;
    // A directory that is there but cannot be watched is tried again when its entry changes.
    if (reason != 0 && reason != ENOENT && reason != ENOTDIR) return;
  }
}

}  // namespace qx
