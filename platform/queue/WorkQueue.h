#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace qx {

/// A queue of work. It is serial (one task at a time, in the order of submission) or concurrent
/// (tasks run in parallel; a barrier runs alone, after all that was submitted before it and before
/// all that is submitted after it).
///
/// Any thread may submit. Asynchronous work runs on the process's pool of threads. A synchronous
/// submission to an idle queue runs on the caller's thread without waking anybody. A thread that
/// waits for a queue drains the queue itself when nobody else is doing so. So blocked threads can
/// never stop the process, whatever the size of the pool.
///
/// A synchronous submission from a task that already runs on the same serial queue (or, on a
/// concurrent one, from a barrier) waits for itself: never do that.
///
/// The queue lives as long as somebody holds it or work is pending on it. Tasks must not throw.
class WorkQueue : public std::enable_shared_from_this<WorkQueue> {
 public:
  using Task = std::function<void()>;

  static std::shared_ptr<WorkQueue> serial(std::string label);
  static std::shared_ptr<WorkQueue> concurrent(std::string label);
  /// The global concurrent queue of default priority. It is never suspended and takes no barriers.
  static WorkQueue& global();

  virtual ~WorkQueue() = default;
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  const std::string& label() const { return label_; }

  /// Submits and returns at once.
  virtual void async(Task task) = 0;
  virtual void barrierAsync(Task task) = 0;

  /// Does the same as async(), for a task that is over in microseconds and waits for nothing, when
  /// the submitting thread is about to wait itself: an answer to what it has read. On the global
  /// queue the task runs on the caller's processor if a thread has to be woken for it, because
  /// another processor may be asleep and would take longer to wake up than the task takes.
  virtual void asyncBriefly(Task task) { async(std::move(task)); }

  /// Submits, waits until it has run, and returns what it returned.
  template <class F>
  auto sync(F&& work) {
    const Turn turn(*this);
    return std::forward<F>(work)();
  }

  /// Submits `task` asynchronously when `delay` has passed on Clock::current().
  void after(std::chrono::nanoseconds delay, Task task);

  /// Suspensions nest; each needs its resume(). A task that runs when the queue is suspended
  /// finishes; nothing starts until the last resume(). A queue may suspend itself from its own
  /// task.
  virtual void suspend() = 0;
  virtual void resume() = 0;

 protected:
  enum class Kind { serial, concurrent, global };

  /// What runs, and what closes the short way. It is one atomic word, which is all that a
  /// synchronous submission to an idle queue touches: flags, and above them the number of running
  /// readers, which are items that are no barriers.
  using State = std::uint64_t;
  static constexpr State barrierRuns = 1;
  /// Set while there is a list of waiting items.
  static constexpr State queued = 2;
  static constexpr State suspended = 4;
  static constexpr State oneReader = 8;

  WorkQueue(std::string label, Kind kind) : kind_(kind), label_(std::move(label)) {}

  /// On a serial queue every item is a barrier, on the global queue none is.
  bool isBarrier(bool asked) const {
    return kind_ == Kind::serial || (asked && kind_ == Kind::concurrent);
  }
  static State shareOf(bool barrier) { return barrier ? barrierRuns : oneReader; }

  bool enterAsReader(State obstacles) {
    // The queue is idle most of the time, so trying is quicker than looking first.
    State state = 0;
    do {
      if (state_.compare_exchange_weak(state, state + oneReader, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return true;
      }
    } while ((state & obstacles) == 0);
    return false;
  }

  /// Returns when the item of the calling thread counts as running.
  virtual void waitForTurn(bool barrier) = 0;
  /// Called after an item has left the queue in the state `before`, while others waited.
  virtual void lookAfterTheList(bool barrier, State before) = 0;

  std::atomic<State> state_{0};

 private:
  /// An item that runs on the thread that submits it, for as long as this exists.
  class Turn {
   public:
    explicit Turn(WorkQueue& queue) : queue_(queue), barrier_(queue.isBarrier(false)) {
      if (!queue_.enter(barrier_)) queue_.waitForTurn(barrier_);
    }
    ~Turn() { queue_.leave(barrier_); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    WorkQueue& queue_;
    const bool barrier_;
  };

  bool enter(bool barrier) {
    if (!barrier) return enterAsReader(barrierRuns | queued | suspended);
    State idle = 0;
    return state_.compare_exchange_strong(idle, barrierRuns, std::memory_order_acquire,
                                          std::memory_order_relaxed);
  }

  void leave(bool barrier) {
    const State before = state_.fetch_sub(shareOf(barrier), std::memory_order_acq_rel);
    if ((before & queued) != 0) lookAfterTheList(barrier, before);
  }

  const Kind kind_;
  std::string label_;
};

/// How many threads the pool behind the queues may use before it stops adding more by itself (it
/// still adds one for each that waits inside a queue). For tests; it takes effect on new
/// submissions.
void setWorkPoolSize(unsigned threads);

}  // namespace qx
