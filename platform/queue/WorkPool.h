#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/queue/ProcessorBinding.h"
#include "platform/queue/Sleeper.h"

namespace qx {

/// Something that has work for a thread of the pool.
class PoolWork {
 public:
  virtual ~PoolWork() = default;
  virtual void runInPool() = 0;
};

/// The owner of a thread. It is told, on that thread, when the thread begins to wait and when it
/// goes on.
class ThreadOwner {
 public:
  virtual void threadBeginsToWait() = 0;
  virtual void threadGoesOn() = 0;

 protected:
  ~ThreadOwner() = default;
};

/// The threads behind the queues; internal to the platform. Threads are started on demand, up to
/// the size of the pool plus one for each of its threads that waits inside a queue. When jobs wait
/// and none has been begun for a while, because tasks that block hold up all threads, the pool
/// grows further, one thread at a time, up to its cap. Threads beyond the size end when they have
/// been idle for some seconds. Any thread may call.
///
/// A job wakes one idle thread. That thread, when it has come for the job and there are more, wakes
/// the next. So of many jobs that come at once only the first costs its submitter a wake-up, and
/// the thread that is awake already does the quick ones.
class WorkPool final : private ThreadOwner {
 public:
  static WorkPool& shared();

  void submit(std::function<void()> task) { submit(Job{nullptr, std::move(task), false}); }
  void submit(std::shared_ptr<PoolWork> work) { submit(Job{std::move(work), nullptr, false}); }
  /// Submits a job that is over in microseconds, from a thread that is about to wait. A thread that
  /// is woken only for it runs on the caller's processor.
  void submitBrief(std::function<void()> task) { submit(Job{nullptr, std::move(task), true}); }

  void setSize(unsigned size, unsigned cap);

  /// Names the owner of the calling thread; the owner outlives it.
  static void setOwnerOfThread(ThreadOwner* owner);

  /// While this exists the calling thread counts as waiting: inside a queue, or for the disk.
  class Waiting {
   public:
    Waiting();
    ~Waiting();
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
  };

 private:
  struct Job {
    std::shared_ptr<PoolWork> work;
    std::function<void()> task;
    bool isBrief = false;
  };

  /// A thread that sleeps until there is a job, for as long as it is on the list.
  struct IdleThread {
    Sleeper sleeper;
    ProcessorBinding* binding = nullptr;
  };

  WorkPool();
  void threadBeginsToWait() override;
  void threadGoesOn() override;
  void submit(Job job);
  /// Takes the next job and runs it. Returns with the mutex held.
  void runNext(std::unique_lock<std::mutex>& lock, ProcessorBinding& binding);
  bool isShortOfThreads() const { return jobs_.size() > idle_; }
  bool mayGrow(unsigned limit) const { return threads_ - waiting_ < limit; }
  bool isTooMany() const { return threads_ - waiting_ > size_; }
  /// Called with the mutex held. Returns the thread that the caller wakes after releasing the
  /// mutex, or null.
  [[nodiscard]] IdleThread* provideThread();
  void startWorker();
  void work();
  /// Sleeps until woken or, where there are too many threads, for a while. Returns whether to go
  /// on.
  bool sleep(std::unique_lock<std::mutex>& lock, ProcessorBinding& binding);
  void watch();

  std::mutex mutex_;
  std::vector<IdleThread*> idleThreads_;
  bool isOneAwakening_ = false;  // and has not come for its job yet
  std::condition_variable backlogArose_;
  std::deque<Job> jobs_;
  std::uint64_t begun_ = 0;
  unsigned size_;
  unsigned cap_;
  unsigned threads_ = 0;
  unsigned idle_ = 0;
  unsigned waiting_ = 0;
  bool watcherStarted_ = false;
  bool watcherIdle_ = false;
};

}  // namespace qx
