// The engine on its own threads.

#include "mirror/Mirror.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "mirror/Engine.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/Memory.h"

namespace docsource {

class Mirror::Implementation {
 public:
  Implementation(MirrorOptions options, std::unique_ptr<Remote> remote)
      : remote_(std::move(remote)),
        transfers_(options.transfers + options.transfersAhead),
        engine_(
            std::move(options), *remote_,
            [this](std::function<void()> work) { execute(std::move(work)); }, [this] { wake(); }) {}

  ~Implementation() { stop(); }

  Result<void> start() {
    event_ = qx::FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!event_) return Error::posix(errno, "The mirror cannot be started");
    if (auto opened = engine_.open(); !opened) return opened;
    thread_ = std::thread([this] { work(); });
    for (unsigned count = 0; count < transfers_; ++count) {
      workers_.emplace_back([this] { carry(); });
    }
    return {};
  }

  void stop() {
    if (isStopped_.exchange(true)) return;
    wake();
    engine_.close();
    {
      const std::lock_guard lock(mutex_);
      pending_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
    for (auto& worker : workers_) worker.join();
  }

  Result<void> sync(bool confirmRemovals) {
    engine_.beginSync(confirmRemovals);
    std::unique_lock lock(mutex_);
    const auto rounds = rounds_;
    // Until a whole round has found nothing to do.
    while (!isStopped_ && (rounds_ <= rounds + 1 || !isQuiet_)) {
      // Rounds are not due while there is nothing to do; a transfer ends one by itself.
      if (rounds_ <= rounds + 1) wake();
      settled_.wait(lock);
    }
    lock.unlock();
    const auto health = engine_.health();
    if (health.state == MirrorHealth::State::ok ||
        health.state == MirrorHealth::State::needsConfirmation) {
      return {};
    }
    return remoteError(RemoteProblem::unreachable,
                       health.reason.value_or("The remote cannot be reached."));
  }

  mirror::Engine& engine() { return engine_; }

 private:
  void wake() {
    const std::uint64_t one = 1;
    (void)!::write(event_.get(), &one, sizeof one);
  }

  void work() {
    constexpr std::chrono::milliseconds much{250};
    std::chrono::steady_clock::duration worked{};
    while (!isStopped_) {
      const auto begun = std::chrono::steady_clock::now();
      const bool hasDone = engine_.step();
      const bool isQuiet = !hasDone && engine_.isQuiet();
      worked += std::chrono::steady_clock::now() - begun;
      if (isQuiet && worked >= much) {
        // What a look through very many items needed lies between what is kept.
        qx::giveFreeMemoryBack();
        worked = {};
      }
      {
        const std::lock_guard lock(mutex_);
        isQuiet_ = isQuiet;
        ++rounds_;
      }
      settled_.notify_all();
      if (hasDone || isStopped_) continue;
      // What is due but cannot be begun waits for a transfer to end, which wakes.
      constexpr std::int64_t least = 20;
      constexpr std::int64_t most = 20'000;
      const auto idle = std::clamp(engine_.idleFor().value_or(most), least, most);
      pollfd waited[] = {{event_.get(), POLLIN, 0}, {engine_.descriptor(), POLLIN, 0}};
      (void)::poll(waited, std::size(waited), static_cast<int>(idle));
      std::uint64_t count = 0;
      (void)!::read(event_.get(), &count, sizeof count);
    }
    settled_.notify_all();
  }

  void execute(std::function<void()> work) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(std::move(work));
    pending_.notify_one();
  }

  void carry() {
    std::unique_lock lock(mutex_);
    while (true) {
      pending_.wait(lock, [this] { return isStopped_ || !queue_.empty(); });
      if (queue_.empty()) return;
      const auto work = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      work();
      lock.lock();
    }
  }

  const std::unique_ptr<Remote> remote_;
  const unsigned transfers_;
  qx::FileDescriptor event_;
  std::atomic<bool> isStopped_ = false;
  std::mutex mutex_;
  std::condition_variable pending_;
  std::condition_variable settled_;
  std::deque<std::function<void()>> queue_;
  std::uint64_t rounds_ = 0;
  bool isQuiet_ = false;
  mirror::Engine engine_;
  std::thread thread_;
  std::vector<std::thread> workers_;
};

Mirror::Mirror(MirrorOptions options, std::unique_ptr<Remote> remote)
    : implementation_(std::make_unique<Implementation>(std::move(options), std::move(remote))) {}
Mirror::~Mirror() = default;

Result<void> Mirror::start() { return implementation_->start(); }
void Mirror::stop() { implementation_->stop(); }
Result<void> Mirror::provide(const std::string& path) {
  return implementation_->engine().provide(path);
}
void Mirror::hurry(const std::string& path, std::uint64_t offset, std::uint64_t size) {
  implementation_->engine().hurry(path, offset, size);
}
Result<void> Mirror::evict(const std::string& path) {
  return implementation_->engine().evict(path);
}
Result<void> Mirror::pin(const std::string& path) {
  return implementation_->engine().pin(path, true);
}
Result<void> Mirror::unpin(const std::string& path) {
  return implementation_->engine().pin(path, false);
}
Result<MirrorStatus> Mirror::status(const std::string& path) {
  return implementation_->engine().status(path);
}
std::vector<MirrorTransfer> Mirror::transfers() { return implementation_->engine().transfers(); }
Result<void> Mirror::cancel(const std::string& path) {
  return implementation_->engine().cancel(path);
}
std::vector<MirrorConflict> Mirror::conflicts() { return implementation_->engine().conflicts(); }
Result<void> Mirror::take(const std::string& copy) { return implementation_->engine().take(copy); }
Result<void> Mirror::sync(bool confirmRemovals) { return implementation_->sync(confirmRemovals); }
MirrorHealth Mirror::health() { return implementation_->engine().health(); }
MirrorChanges Mirror::changesAfter(std::uint64_t last) {
  auto& engine = implementation_->engine();
  const auto changes = engine.changes().after(last);
  if (!changes.items) return {changes.last, std::nullopt};
  return {changes.last, engine.pathsOf(*changes.items)};
}
void Mirror::whenChangedAfter(std::uint64_t last, std::function<void()> isThere) {
  implementation_->engine().changes().whenAfter(last, std::move(isThere));
}
void Mirror::itemChanged(const std::string& path) { implementation_->engine().itemChanged(path); }
Result<std::string> Mirror::identifierForItem(const std::string& path) {
  return implementation_->engine().identifierForItem(path);
}
Result<std::string> Mirror::pathForItem(const std::string& identifier) {
  return implementation_->engine().pathForItem(identifier);
}

}  // namespace docsource
