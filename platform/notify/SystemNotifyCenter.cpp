// System-wide notifications over one watch on the directory of their files.
//
// Every observer has a serial queue of its own, so that a slow one holds up nobody else. When
// events were lost, or the directory was not there, the files themselves tell what was posted.

#include "platform/notify/SystemNotifyCenter.h"

#include <errno.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/files/DirectoryWatch.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkQueue.h"

namespace qx::SystemNotifyCenter {
namespace {

/// One state of a notification's file; all zero while there is none. Whatever posts changes it.
struct Posting {
  dev_t device = 0;
  ino_t inode = 0;
  timespec changed{};
  bool isThere() const { return inode != 0; }
  bool isOfSameFile(const Posting& other) const {
    return device == other.device && inode == other.inode;
  }
  friend bool operator==(const Posting& a, const Posting& b) {
    return a.isOfSameFile(b) && a.changed.tv_sec == b.changed.tv_sec &&
           a.changed.tv_nsec == b.changed.tv_nsec;
  }
};

struct File {
  Posting posting;
  /// It did not come by a link, so that whoever made it has it open, or had.
  bool hasOneName = false;
};

File fileOf(const std::string& name) {
  struct stat status;
  if (stat((Places::notifications() + "/" + name).c_str(), &status) != 0) return {};
  return {{status.st_dev, status.st_ino, status.st_ctim}, status.st_nlink == 1};
}

struct Observer {
  std::shared_ptr<WorkQueue> queue;
  std::shared_ptr<const std::function<void()>> callback;
};

struct Notification {
  /// What was told last, or was there before the first observer.
  Posting told;
  /// It was told when it was made: its first closing is the same posting.
  bool isToldBeforeClosing = false;
  std::vector<Observer> observers;
};

class Center {
 public:
  void add(const std::string& name, std::function<void()> callback) {
    std::lock_guard lock(mutex_);
    if (!watch_) {
      watch_ = DirectoryWatch::start(
          Places::notifications(),
          [this](const std::string& changed, Change how) { change(changed, how); });
      if (!watch_) DS_LOG("[ERROR] Cannot watch for notifications in %@", Places::notifications());
    }
    auto [found, isNew] = notifications_.try_emplace(name);
    if (isNew) found->second.told = fileOf(name).posting;
    found->second.observers.push_back(
        {WorkQueue::serial("notification " + name),
         std::make_shared<const std::function<void()>>(std::move(callback))});
  }

 private:
  using Change = DirectoryWatch::Change;

  /// An empty name: anything may have been posted.
  void change(const std::string& changed, Change how) {
    std::lock_guard lock(mutex_);
    for (auto& [name, notification] : notifications_) {
      if (!changed.empty() && name != changed) continue;
      if (!isPosted(notification, fileOf(name), how)) continue;
      for (const auto& observer : notification.observers) {
        observer.queue->async([callback = observer.callback] { (*callback)(); });
      }
    }
  }

  /// Events may be older than the file that is there by now, which is told once all the same.
  static bool isPosted(Notification& notification, const File& file, Change how) {
    const bool wasOpen = std::exchange(notification.isToldBeforeClosing, false);
    if (file.posting == notification.told) return false;
    if (!file.posting.isThere() || how == Change::gone) {
      notification.told = {};
      return false;
    }
    const bool isSamePosting =
        how == Change::complete && wasOpen && file.posting.isOfSameFile(notification.told);
    notification.told = file.posting;
    notification.isToldBeforeClosing = how == Change::made && file.hasOneName;
    return !isSamePosting;
  }

  std::mutex mutex_;
  std::unique_ptr<DirectoryWatch> watch_;
  std::map<std::string, Notification> notifications_;
};

}  // namespace

void addObserver(const std::string& name, std::function<void()> callback) {
  static auto& center = *new Center;
  center.add(name, std::move(callback));
}

std::optional<Error> post(const std::string& name) {
  if (name.empty() || name.starts_with('.') || name.find('/') != std::string::npos) {
    return posixError(EINVAL, "The notification cannot be posted");
  }
  if (auto error = FileManager::createDirectory(Places::notifications())) return error;
  return FileManager::replaceFile(Places::notifications() + "/" + name, "", 0644);
}

}  // namespace qx::SystemNotifyCenter
