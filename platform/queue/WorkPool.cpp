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
  IdleThread* woken = nullptr;
  bool isHere = false;
  {
    const std::lock_guard lock(mutex_);
    isHere = job.isBrief && jobs_.empty();
    jobs_.push_back(std::move(job));
    woken = provideThread();
  }
  if (!woken) return;
  if (isHere) woken->binding->bindToThisProcessor();
  woken->sleeper.wake();
}

WorkPool::IdleThread* WorkPool::provideThread() {
  IdleThread* woken = nullptr;
  if (!idleThreads_.empty() && !isOneAwakening_) {
    isOneAwakening_ = true;
    woken = idleThreads_.back();
    idleThreads_.pop_back();
  }
  if (!isShortOfThreads()) return woken;
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
  return woken;
}

void WorkPool::startWorker() {
  auto worker = startThread("queue-work", [this] { work(); });
  if (!worker.joinable()) return;
  worker.detach();
  ++threads_;
}

void WorkPool::runNext(std::unique_lock<std::mutex>& lock, ProcessorBinding& binding) {
  Job job = std::move(jobs_.front());
  jobs_.pop_front();
  ++begun_;
  IdleThread* const woken = jobs_.empty() ? nullptr : provideThread();
  lock.unlock();
  if (woken) woken->sleeper.wake();
  if (!job.isBrief) binding.release();
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
  ProcessorBinding binding;
  std::unique_lock lock(mutex_);
  for (;;) {
    if (!jobs_.empty()) {
      runNext(lock, binding);
      continue;
    }
    ++idle_;
    const bool isNeeded = sleep(lock, binding);
    --idle_;
    if (!isNeeded) {
      --threads_;
      return;
    }
  }
}

bool WorkPool::sleep(std::unique_lock<std::mutex>& lock, ProcessorBinding& binding) {
  IdleThread thread;
  thread.binding = &binding;
  idleThreads_.push_back(&thread);
  // Only what is too much looks at the clock: an idle process has nothing to wake up for.
  while (isTooMany()) {
    lock.unlock();
    const bool isWoken = thread.sleeper.sleepFor(idleTime);
    lock.lock();
    if (isWoken) {
      isOneAwakening_ = false;
      return true;
    }
    // Taken off the list meanwhile: the waking comes.
    if (std::erase(idleThreads_, &thread) == 0) break;
    if (isTooMany()) return !jobs_.empty();
    idleThreads_.push_back(&thread);
  }
  lock.unlock();
  thread.sleeper.sleep();
  lock.lock();
  isOneAwakening_ = false;
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
