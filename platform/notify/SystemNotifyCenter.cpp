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

/// One state of a notification's file; all zero while there is none.
struct Posting {
  dev_t device = 0;
  ino_t inode = 0;
  timespec modified{};
  bool hasOneName = false;
  bool isThere() const { return inode != 0; }
  friend bool operator==(const Posting& a, const Posting& b) {
    return a.device == b.device && a.inode == b.inode && a.modified.tv_sec == b.modified.tv_sec &&
           a.modified.tv_nsec == b.modified.tv_nsec;
  }
};

Posting lastPosting(const std::string& name) {
  struct stat status;
  if (stat((Places::notifications() + "/" + name).c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, status.st_mtim, status.st_nlink == 1};
}

struct Observer {
  std::shared_ptr<WorkQueue> queue;
  std::shared_ptr<const std::function<void()>> callback;
};

struct Notification {
  Posting last;
  /// A file that was told when it was made and that may have been open for writing still: its
  /// closing is the same posting.
  Posting toldAsMade;
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
    if (isNew) found->second.last = lastPosting(name);
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
      if (!isPosted(notification, lastPosting(name), how)) continue;
      for (const auto& observer : notification.observers) {
        observer.queue->async([callback = observer.callback] { (*callback)(); });
      }
    }
  }

  static bool isPosted(Notification& notification, const Posting& posting, Change how) {
    const auto last = std::exchange(notification.last, posting);
    const auto toldAsMade = std::exchange(notification.toldAsMade, Posting());
    if (!posting.isThere()) return false;
    switch (how) {
      case Change::made:
        notification.toldAsMade = posting;
        return true;
      case Change::complete:
        // Whoever made it has written meanwhile, perhaps. One that came by a link is closed by
        // others.
        return posting != toldAsMade &&
               !(posting.hasOneName && posting.device == toldAsMade.device &&
                 posting.inode == toldAsMade.inode);
      case Change::gone:
        // Another file may have taken its place already, and is told by itself.
        notification.last = last;
        return false;
      case Change::unknown:
        return posting != last;
    }
    return false;
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
  return FileManager::replaceFile(Places::notifications() + "/" + name, "");
}

}  // namespace qx::SystemNotifyCenter
