// A watch on one directory, with an inotify instance of its own that the reactor waits for.
//
// The handler, which the reactor holds while it runs, owns the instance; the watch that the caller
// holds only takes it out of the reactor.

#include "platform/files/DirectoryWatch.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <atomic>

#include "platform/files/Inotify.h"
#include "platform/queue/Reactor.h"

namespace qx {
namespace {

constexpr std::uint32_t entryMask =
    IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

class Handler final : public ReactorHandler {
 public:
  Handler(std::string directory, DirectoryWatch::Callback callback)
      : path_(inotify_, std::move(directory), entryMask), callback_(std::move(callback)) {}

  bool begin(const std::shared_ptr<ReactorHandler>& self) {
    if (inotify_.descriptor() < 0) return false;
    path_.establish();
    // Armed only once its number is known to ready().
    source_ = Reactor::shared().add(inotify_.descriptor(), 0, self);
    if (source_ == 0) return false;
    Reactor::shared().arm(source_, inotify_.descriptor(), EPOLLIN);
    return true;
  }

  void end() {
    ended_ = true;
    Reactor::shared().remove(source_, inotify_.descriptor());
  }

  void ready(std::uint32_t) override {
    for (const auto& event : inotify_.read()) {
      if (path_.isUnsettledBy(event)) {
        int before = path_.directory();
        path_.establish();
        if (event.isOverflow() || path_.directory() != before)
          tell({}, DirectoryWatch::Change::unknown);
      } else if (event.watch == path_.directory() && !event.name.empty() && isComplete(event)) {
        tell(event.name, changeOf(event));
      }
    }
    Reactor::shared().arm(source_, inotify_.descriptor(), EPOLLIN);
  }

 private:
  /// A new file that is still empty is being written and its closing will be told; one that was
  /// linked into the directory is complete.
  bool isComplete(const Inotify::Event& event) const {
    if (!(event.mask & IN_CREATE) || (event.mask & IN_ISDIR)) return true;
    struct stat status;
    if (lstat((path_.path() + "/" + event.name).c_str(), &status) != 0) return true;
    return !S_ISREG(status.st_mode) || status.st_nlink > 1 || status.st_size > 0;
  }

  static DirectoryWatch::Change changeOf(const Inotify::Event& event) {
    if (event.mask & (IN_DELETE | IN_MOVED_FROM)) return DirectoryWatch::Change::gone;
    return event.mask & IN_CREATE ? DirectoryWatch::Change::made : DirectoryWatch::Change::complete;
  }

  void tell(const std::string& name, DirectoryWatch::Change change) {
    if (!ended_) callback_(name, change);
  }

  Inotify inotify_;
  WatchedPath path_;
  DirectoryWatch::Callback callback_;
  std::atomic<Reactor::SourceID> source_{0};
  std::atomic<bool> ended_{false};
};

class InotifyDirectoryWatch final : public DirectoryWatch {
 public:
  explicit InotifyDirectoryWatch(std::shared_ptr<Handler> handler) : handler_(std::move(handler)) {}
  ~InotifyDirectoryWatch() override { handler_->end(); }

 private:
  std::shared_ptr<Handler> handler_;
};

}  // namespace

std::unique_ptr<DirectoryWatch> DirectoryWatch::start(std::string directory, Callback callback) {
  auto handler = std::make_shared<Handler>(std::move(directory), std::move(callback));
  if (!handler->begin(handler)) return nullptr;
  return std::make_unique<InotifyDirectoryWatch>(std::move(handler));
}

std::unique_ptr<DirectoryWatch> DirectoryWatch::start(
    std::string directory, std::function<void(const std::string& name)> callback) {
  return start(std::move(directory), [callback = std::move(callback)](const std::string& name,
                                                                      Change) { callback(name); });
}

}  // namespace qx
