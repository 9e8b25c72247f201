// The paths of the trees.

#include "platform/platformd/kernel/TreeWatch.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <atomic>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/files/Inotify.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/queue/Reactor.h"

namespace qx::kernel {
namespace {

/// What both watches share, for as long as the reactor may call them.
class Paths {
 public:
  explicit Paths(TreeWatch::Callback callback) : callback_(std::move(callback)) {}

  int descriptor() const { return inotify_.descriptor(); }

  void add(const std::string& path) {
    const std::lock_guard lock(mutex_);
    const auto [entry, isNew] = paths_.try_emplace(path, inotify_, path, 0, &openDirectoryPromptly);
    if (isNew) entry->second.establish();
  }
  void remove(const std::string& path) {
    const std::lock_guard lock(mutex_);
    paths_.erase(path);
  }
  void end() { hasEnded_ = true; }

  void readEvents() {
    std::vector<std::string> changed;
    {
      const std::lock_guard lock(mutex_);
      for (const auto& event : inotify_.read()) {
        for (auto& [path, watched] : paths_) {
          if (!watched.isUnsettledBy(event)) continue;
          const int before = watched.directory();
          watched.establish();
          if (event.isOverflow() || watched.directory() != before) changed.push_back(path);
        }
      }
    }
    for (const auto& path : changed) tell(path);
  }

  void lookAtAll() {
    std::vector<std::string> all;
    {
      const std::lock_guard lock(mutex_);
      for (auto& [path, watched] : paths_) {
        watched.establish();
        all.push_back(path);
      }
    }
    for (const auto& path : all) tell(path);
  }

 private:
  void tell(const std::string& path) {
    if (!hasEnded_) callback_(path);
  }

  const TreeWatch::Callback callback_;
  std::atomic<bool> hasEnded_{false};
  std::mutex mutex_;
  Inotify inotify_;
  std::map<std::string, WatchedPath> paths_;
};

class Source final : public ReactorHandler {
 public:
  using Act = void (Paths::*)();
  Source(std::shared_ptr<Paths> paths, int descriptor, std::uint32_t events, Act act)
      : paths_(std::move(paths)), descriptor_(descriptor), events_(events), act_(act) {}

  static std::shared_ptr<Source> begin(const std::shared_ptr<Paths>& paths, int descriptor,
                                       std::uint32_t events, Act act) {
    auto source = std::make_shared<Source>(paths, descriptor, events, act);
    // Armed only once its number is known to ready().
    source->id_ = Reactor::shared().add(descriptor, 0, source);
    Reactor::shared().arm(source->id_, descriptor, events);
    return source;
  }
  void end() { Reactor::shared().remove(id_, descriptor_); }

  void ready(std::uint32_t /*events*/) override {
    ((*paths_).*act_)();
    Reactor::shared().arm(id_, descriptor_, events_);
  }

 private:
  const std::shared_ptr<Paths> paths_;
  const int descriptor_;
  const std::uint32_t events_;
  const Act act_;
  std::atomic<Reactor::SourceID> id_{0};
};

class PathsAndMounts final : public TreeWatch {
 public:
  explicit PathsAndMounts(Callback callback)
      : paths_(std::make_shared<Paths>(std::move(callback))),
        mounts_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)),
        events_(Source::begin(paths_, paths_->descriptor(), EPOLLIN, &Paths::readEvents)),
        mountings_(Source::begin(paths_, mounts_.get(), EPOLLPRI, &Paths::lookAtAll)) {}
  ~PathsAndMounts() override {
    paths_->end();
    events_->end();
    mountings_->end();
  }
  void add(const std::string& path) override { paths_->add(path); }
  void remove(const std::string& path) override { paths_->remove(path); }

 private:
  const std::shared_ptr<Paths> paths_;
  const FileDescriptor mounts_;
  const std::shared_ptr<Source> events_;
  const std::shared_ptr<Source> mountings_;
};

}  // namespace

std::unique_ptr<TreeWatch> TreeWatch::start(Callback callback) {
  return std::make_unique<PathsAndMounts>(std::move(callback));
}

}  // namespace qx::kernel
