#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace qx {

/// Something that has work for a thread of the pool.
class PoolWork {
 public:
  virtual ~PoolWork() = default;
  virtual void runInPool() = 0;
};

/// Who runs a thread: told, on that thread, when it begins to wait and when it goes on.
class ThreadOwner {
 public:
  virtual void threadBeginsToWait() = 0;
  virtual void threadGoesOn() = 0;

 protected:
  ~ThreadOwner() = default;
};

/// The threads behind the queues; internal to the platform. Threads are started on demand, up to
/// the size of the pool plus one for each of its threads that waits inside a queue. When jobs wait
/// and none has been begun for a while, because all threads are held up by tasks that block, the
/// pool grows further, one thread at a time, up to its cap. Threads beyond the size end when they
/// have been idle for some seconds. Any thread may call.
///
/// A thread of the reactor may keep work for itself (HoldBack), because it will be free in a
/// moment: what only answers the call that it has just read, and the first other job. The job is on
/// the list like any other, but nobody is woken for it. That saves two switches of threads for
/// each.
class WorkPool final : private ThreadOwner {
 public:
  static WorkPool& shared();

  void submit(std::function<void()> task) { submit(Job{nullptr, std::move(task)}); }
  void submit(std::shared_ptr<PoolWork> work) { submit(Job{std::move(work), nullptr}); }

  void setSize(unsigned size, unsigned cap);

  /// Takes a task that only answers a call and so waits for nothing.
  void submitAnswer(std::function<void()> task);

  /// While it exists, the calling thread keeps the answers that it submits and gives them at the
  /// end, when what submitted them has returned; and nobody is woken for the first job that it
  /// submits. The thread must call runHeldBack() soon, and must not wait for the job before; where
  /// it waits inside a queue, or calls releaseHeldBack(), others are left the answers and woken for
  /// the job after all. No more threads than the size of the pool hold jobs back at a time.
  class HoldBack {
   public:
    HoldBack();
    ~HoldBack();
    HoldBack(const HoldBack&) = delete;
    HoldBack& operator=(const HoldBack&) = delete;
  };
  static void runHeldBack();
  static void releaseHeldBack();

  /// Says who runs the calling thread; the owner outlives it.
  static void setOwnerOfThread(ThreadOwner* owner);

  /// While it exists the calling thread counts as waiting: inside a queue, or for the disk.
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
  };

  /// A thread without a job. Each has a condition variable of its own: one that several wait for
  /// may, in C libraries before 2.41, miss a signal, and then holds up who signals next, with the
  /// mutex held, until a wait times out (glibc bug 25847).
  struct Sleeper {
    std::condition_variable wake;
    bool isWoken = false;
  };

  WorkPool();
  void threadBeginsToWait() override;
  void threadGoesOn() override;
  void submit(Job job);
  /// Takes the next job and runs it, and comes back with the mutex held.
  void runNext(std::unique_lock<std::mutex>& lock);
  bool isShortOfThreads() const { return jobs_.size() > idle_; }
  bool mayGrow(unsigned limit) const { return threads_ - waiting_ < limit; }
  bool isTooMany() const { return threads_ - waiting_ > size_; }
  /// With the mutex held.
  void provideThread();
  void startWorker();
  void work();
  /// Until there is a job, or, where there are too many threads, for a while; whether to go on.
  bool sleep(std::unique_lock<std::mutex>& lock);
  void watch();

  std::mutex mutex_;
  std::vector<Sleeper*> sleepers_;
  std::condition_variable backlogArose_;
  std::deque<Job> jobs_;
  std::uint64_t begun_ = 0;
  unsigned size_;
  unsigned cap_;
  unsigned threads_ = 0;
  unsigned idle_ = 0;
  unsigned waiting_ = 0;
  unsigned holdingBack_ = 0;
  bool watcherStarted_ = false;
  bool watcherIdle_ = false;
};

}  // namespace qx
