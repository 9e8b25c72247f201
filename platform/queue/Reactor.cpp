// The reactor: an epoll set and the threads that wait in it.
//
// Events carry the number of their source, not a pointer, so an event that was already on its way
// when its source was removed finds nothing. A thread that takes an event and leaves nobody waiting
// starts another thread before it calls the handler; that is what lets a handler block. More than
// `kept` idle threads end after `idleTime`.

#include "platform/queue/Reactor.h"

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>

#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "platform/base/FileDescriptor.h"
#include "platform/queue/WorkPool.h"

namespace qx {
namespace {

class EpollReactor final : public Reactor {
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
      for (unsigned i = 0; i < kept; ++i) startThread();
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

 private:
  static constexpr unsigned kept = 3;
  static constexpr int idleMilliseconds = 10'000;

  bool control(int operation, SourceID source, int fd, std::uint32_t events) {
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = source;
    return epoll_ctl(epoll_.get(), operation, fd, &event) == 0;
  }

  void startThread() {
    // Counted before it runs, so that a burst of events does not start one thread for each.
    waiting_.fetch_add(1);
    threads_.fetch_add(1);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      std::thread([this] { serve(); }).detach();
    } catch (const std::system_error&) {
      // No thread to be had; those that run go on serving.
      waiting_.fetch_sub(1);
      threads_.fetch_sub(1);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  void serve() {
    for (;;) {
      epoll_event event{};
      int count = epoll_wait(epoll_.get(), &event, 1, idleMilliseconds);
      if (count <= 0) {
        if (count == 0 && mayEnd()) return;
        continue;
      }
      if (waiting_.fetch_sub(1) == 1) startThread();
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
      WorkPool::runHeldBack();
      waiting_.fetch_add(1);
    }
  }

  bool mayEnd() {
    unsigned threads = threads_.load();
    while (threads > kept) {
      if (threads_.compare_exchange_weak(threads, threads - 1)) {
        waiting_.fetch_sub(1);
        return true;
      }
    }
    return false;
  }

  FileDescriptor epoll_;
  std::once_flag started_;
  std::atomic<unsigned> waiting_{0};
  std::atomic<unsigned> threads_{0};
  std::atomic<unsigned> armed_{0};
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
