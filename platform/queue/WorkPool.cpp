/// The pool of threads behind the queues: one list of jobs, workers that take them, and a watcher
/// that adds a worker whenever a backlog has not moved for a moment.

#include "platform/queue/WorkPool.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "platform/queue/Thread.h"

namespace qx {

namespace {

constexpr std::chrono::seconds idleTime{5};
constexpr std::chrono::milliseconds patience{10};
constexpr unsigned defaultCap = 64;

thread_local ThreadOwner* owner = nullptr;
/// Of the calling thread: whether it is within the scope in which it may keep work, the answers
/// that it keeps, and whether it holds a job back.
thread_local bool mayHoldBack = false;
thread_local std::vector<std::function<void()>> answers;
thread_local bool holdsBack = false;

}  // namespace

WorkPool& WorkPool::shared() {
  static auto& pool = *new WorkPool;
  return pool;
}

WorkPool::WorkPool()
    : size_(std::max(2U, std::thread::hardware_concurrency())), cap_(std::max(size_, defaultCap)) {}

void WorkPool::setSize(unsigned size, unsigned cap) {
  const std::lock_guard lock(mutex_);
  size_ = std::max(1U, size);
  cap_ = std::max(size_, cap);
}

void WorkPool::submit(Job job) {
  const std::lock_guard lock(mutex_);
  jobs_.push_back(std::move(job));
  if (mayHoldBack && !holdsBack && holdingBack_ < size_) {
    holdsBack = true;
    ++holdingBack_;
    return;
  }
  provideThread();
}

void WorkPool::submitAnswer(std::function<void()> task) {
  if (mayHoldBack) {
    answers.push_back(std::move(task));
  } else {
    submit(std::move(task));
  }
}

WorkPool::HoldBack::HoldBack() { mayHoldBack = true; }

WorkPool::HoldBack::~HoldBack() {
  mayHoldBack = false;
  for (const auto& answer : std::exchange(answers, {})) answer();
}

void WorkPool::releaseHeldBack() {
  auto& pool = shared();
  for (auto& answer : std::exchange(answers, {})) pool.submit(std::move(answer));
  if (!std::exchange(holdsBack, false)) return;
  const std::lock_guard lock(pool.mutex_);
  --pool.holdingBack_;
  pool.provideThread();
}

void WorkPool::runHeldBack() {
  if (!std::exchange(holdsBack, false)) return;
  auto& pool = shared();
  std::unique_lock lock(pool.mutex_);
  // Others may have taken all there was.
  if (!pool.jobs_.empty()) pool.runNext(lock);
  --pool.holdingBack_;
}

void WorkPool::provideThread() {
  if (!sleepers_.empty()) {
    sleepers_.back()->isWoken = true;
    sleepers_.back()->wake.notify_one();
    sleepers_.pop_back();
  }
  if (!isShortOfThreads()) return;
  if (mayGrow(size_)) {
    startWorker();
  } else if (mayGrow(cap_)) {
    if (!watcherStarted_) {
      auto watcher = startThread("queue-watch", [this] { watch(); });
      watcherStarted_ = watcher.joinable();
      if (watcherStarted_) watcher.detach();
    } else if (watcherIdle_) {
      backlogArose_.notify_one();
    }
  }
}

void WorkPool::startWorker() {
  auto worker = startThread("queue-work", [this] { work(); });
  if (!worker.joinable()) return;
  worker.detach();
  ++threads_;
}

void WorkPool::runNext(std::unique_lock<std::mutex>& lock) {
  Job job = std::move(jobs_.front());
  jobs_.pop_front();
  ++begun_;
  lock.unlock();
  if (job.work) {
    job.work->runInPool();
  } else {
    job.task();
  }
  job = {};
  lock.lock();
}

void WorkPool::work() {
  setOwnerOfThread(this);
  std::unique_lock lock(mutex_);
  for (;;) {
    if (!jobs_.empty()) {
      runNext(lock);
      continue;
    }
    ++idle_;
    const bool isNeeded = sleep(lock);
    --idle_;
    if (!isNeeded) {
      --threads_;
      return;
    }
  }
}

bool WorkPool::sleep(std::unique_lock<std::mutex>& lock) {
  Sleeper sleeper;
  sleepers_.push_back(&sleeper);
  const auto isWoken = [&] { return sleeper.isWoken; };
  // Only what is too much looks at the clock: an idle process has nothing to wake up for.
  while (isTooMany() && !sleeper.isWoken) {
    if (sleeper.wake.wait_for(lock, idleTime, isWoken) || !isTooMany()) continue;
    std::erase(sleepers_, &sleeper);
    return !jobs_.empty();
  }
  sleeper.wake.wait(lock, isWoken);
  return true;
}

void WorkPool::watch() {
  const auto isStuck = [this] { return isShortOfThreads() && mayGrow(cap_); };
  std::unique_lock lock(mutex_);
  for (;;) {
    watcherIdle_ = true;
    backlogArose_.wait(lock, isStuck);
    watcherIdle_ = false;
    const auto begunBefore = begun_;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (backlogArose_.wait_until(lock, deadline) != std::cv_status::timeout) {
    }
    if (isStuck() && begun_ == begunBefore) startWorker();
  }
}

void WorkPool::setOwnerOfThread(ThreadOwner* newOwner) { owner = newOwner; }

WorkPool::Waiting::Waiting() {
  releaseHeldBack();
  if (owner) owner->threadBeginsToWait();
}

WorkPool::Waiting::~Waiting() {
  if (owner) owner->threadGoesOn();
}

void WorkPool::threadBeginsToWait() {
  const std::lock_guard lock(mutex_);
  ++waiting_;
  if (isShortOfThreads() && mayGrow(size_)) startWorker();
}

void WorkPool::threadGoesOn() {
  const std::lock_guard lock(mutex_);
  --waiting_;
}

}  // namespace qx
