// The reactor: an epoll set and the threads that wait in it.
//
// Events carry the number of their source, not a pointer, so an event that was already on its way
// when its source was removed finds nothing.
//
// One thread waits for events as a rule; it handles what it takes and waits again, so that a stream
// of events that are quickly handled wakes nobody else. The others are in reserve. One is called,
// or started, when nobody waits for events because a handler waits inside a queue or for the disk
// (it says so), or because no event was taken for a moment (a watcher sees it). Who comes back and
// finds somebody waiting goes into the reserve, where more than `kept` threads end after
// `idleTime`. The watcher also does what was put off to have company.

#include "platform/queue/Reactor.h"

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/queue/Sleeper.h"
#include "platform/queue/Thread.h"
#include "platform/queue/WorkPool.h"

namespace qx {
namespace {

class EpollReactor final : public Reactor, private ThreadOwner {
 public:
  EpollReactor() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {}

  SourceID add(int fd, std::uint32_t events, std::shared_ptr<ReactorHandler> handler) override {
    SourceID source = 0;
    {
      std::lock_guard lock(mutex_);
      source = ++lastSource_;
      handlers_.emplace(source, std::move(handler));
    }
    if (!control(EPOLL_CTL_ADD, source, fd, events)) {
      std::lock_guard lock(mutex_);
      handlers_.erase(source);
      return 0;
    }
    std::call_once(started_, [this] {
      callPoller();
      if (auto watcher = startThread("reactor-watch", [this] { watch(); }); watcher.joinable()) {
        watcher.detach();
      }
    });
    return source;
  }

  void arm(SourceID source, int fd, std::uint32_t events) override {
    // What the handler did so far is seen by the thread that takes the next event; the kernel's own
    // ordering is none that the language knows of.
    armed_.fetch_add(1, std::memory_order_release);
    control(EPOLL_CTL_MOD, source, fd, events);
  }

  void remove(SourceID source, int fd) override {
    std::shared_ptr<ReactorHandler> last;  // released outside the lock
    std::lock_guard lock(mutex_);
    auto found = handlers_.find(source);
    if (found == handlers_.end()) return;
    last = std::move(found->second);
    handlers_.erase(found);
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  }

  void soon(std::shared_ptr<ReactorHandler> handler) override {
    bool isAwake = true;
    {
      std::lock_guard lock(watcherMutex_);
      late_.push_back(std::move(handler));
      isAwake = !watcherIsIdle_.exchange(false);
    }
    if (!isAwake) watcherWakes_.notify_one();
  }

 private:
  static constexpr unsigned kept = 3;
  static constexpr std::chrono::seconds idleTime{10};
  static constexpr std::chrono::milliseconds patience{1};

  bool control(int operation, SourceID source, int fd, std::uint32_t events) {
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = source;
    return epoll_ctl(epoll_.get(), operation, fd, &event) == 0;
  }

  /// Has one thread more wait for events. It counts from now on, so that many who find nobody
  /// waiting do not call one each.
  void callPoller() {
    pollers_.fetch_add(1);
    Sleeper* called = nullptr;
    {
      std::lock_guard lock(reserveMutex_);
      if (reserve_.empty()) {
        ++threads_;
      } else {
        called = reserve_.back();
        reserve_.pop_back();
      }
    }
    if (called) {
      called->wake();
      return;
    }
    auto thread = startThread("reactor", [this] { serve(); });
    if (thread.joinable()) {
      thread.detach();
      return;
    }
    // No thread to be had; those that run go on serving.
    pollers_.fetch_sub(1);
    std::lock_guard lock(reserveMutex_);
    --threads_;
  }

  void serve() {
    WorkPool::setOwnerOfThread(this);
    do {
      epoll_event event{};
      while (epoll_wait(epoll_.get(), &event, 1, -1) <= 0) {
      }
      taken_.fetch_add(1, std::memory_order_relaxed);
      if (pollers_.fetch_sub(1) == 1) wakeWatcher();
      armed_.load(std::memory_order_acquire);
      // A copy: the kernel's structure is packed, and nothing may refer into it.
      const SourceID source = event.data.u64;
      std::shared_ptr<ReactorHandler> handler;
      {
        std::lock_guard lock(mutex_);
        auto found = handlers_.find(source);
        if (found != handlers_.end()) handler = found->second;
      }
      if (handler) handler->ready(event.events);
      handler.reset();
    } while (becomePoller());
  }

  /// Returns when the calling thread is to wait for events; false when it is to end.
  bool becomePoller() {
    unsigned none = 0;
    if (pollers_.compare_exchange_strong(none, 1)) return true;
    Sleeper sleeper;
    std::unique_lock lock(reserveMutex_);
    reserve_.push_back(&sleeper);
    // Those that are kept sleep until they are needed: an idle process has nothing to wake up for.
    while (threads_ > kept) {
      lock.unlock();
      if (sleeper.sleepFor(idleTime)) return true;
      lock.lock();
      // Taken off the list meanwhile: the waking comes.
      if (std::erase(reserve_, &sleeper) == 0) break;
      if (threads_ > kept) {
        --threads_;
        return false;
      }
      reserve_.push_back(&sleeper);
    }
    lock.unlock();
    sleeper.sleep();
    return true;
  }

  // ThreadOwner
  void threadBeginsToWait() override {
    if (pollers_.load() == 0) callPoller();
  }
  void threadGoesOn() override {}

  void wakeWatcher() {
    if (!watcherIsIdle_.load() || !watcherIsIdle_.exchange(false)) return;
    std::lock_guard lock(watcherMutex_);
    watcherWakes_.notify_one();
  }

  void watch() {
    std::unique_lock lock(watcherMutex_);
    for (;;) {
      watcherIsIdle_ = true;
      if (pollers_.load() == 0 || !late_.empty()) watcherIsIdle_ = false;
      watcherWakes_.wait(lock, [this] { return !watcherIsIdle_.load(); });
      for (bool isNeeded = true; isNeeded;) {
        auto late = std::exchange(late_, {});
        const auto before = taken_.load(std::memory_order_relaxed);
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (watcherWakes_.wait_until(lock, deadline) != std::cv_status::timeout) {
        }
        // While events come, it stays: being woken costs who wakes it.
        const bool hasMoved = taken_.load(std::memory_order_relaxed) != before;
        lock.unlock();
        if (!hasMoved && pollers_.load() == 0) callPoller();
        for (const auto& handler : late) handler->late();
        late.clear();
        lock.lock();
        isNeeded = hasMoved || pollers_.load() == 0 || !late_.empty();
      }
    }
  }

  FileDescriptor epoll_;
  std::once_flag started_;
  std::atomic<unsigned> pollers_{0};  // threads that wait for events
  std::atomic<unsigned> taken_{0};
  std::atomic<unsigned> armed_{0};
  std::mutex reserveMutex_;
  std::vector<Sleeper*> reserve_;  // under the reserve's mutex, like threads_
  unsigned threads_ = 0;
  std::mutex watcherMutex_;
  std::condition_variable watcherWakes_;
  std::atomic<bool> watcherIsIdle_{false};
  std::vector<std::shared_ptr<ReactorHandler>> late_;  // under the watcher's mutex
  std::mutex mutex_;
  SourceID lastSource_ = 0;
  std::unordered_map<SourceID, std::shared_ptr<ReactorHandler>> handlers_;
};

}  // namespace

Reactor& Reactor::shared() {
  static auto& reactor = *new EpollReactor;
  return reactor;
}

}  // namespace qx
