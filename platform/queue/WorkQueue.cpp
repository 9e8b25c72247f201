/// Work queues. One class does both kinds; on a serial queue every item is a barrier.
///
/// The state of a queue is one atomic word: how many items run, and three flags. An item that finds
/// nothing in its way enters by changing the word and leaves by changing it back, and that is all.
/// Otherwise it goes onto the list, under the mutex, and sets the flag `queued`, which closes the
/// short way for all others. Who leaves and sees that flag takes the mutex and looks what may run
/// now. Since entering the list and leaving the queue are changes of the same word, one of the two
/// sees the other: nothing is forgotten.
///
/// Asynchronous items stay on the list until a thread takes one. Such a thread is one of the pool,
/// to which the queue has sent itself, or one that waits for an item of its own further back, and
/// so could not go on before the item is done anyhow. Synchronous items always run on the thread
/// that submitted them: what lets them run (a grant) takes them off the list, counts them as
/// running and wakes their thread.

#include "platform/queue/WorkQueue.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#include "platform/queue/Clock.h"
#include "platform/queue/WorkPool.h"

namespace qx {

namespace {

struct SyncSubmission {
  std::condition_variable wake;
  bool granted = false;
  /// Asked to take asynchronous items that stand before its own.
  bool calledToHelp = false;
  bool asleep = false;
  SyncSubmission* nextSleeper = nullptr;
};

/// An asynchronous item is on the heap and owned by the list; a synchronous one is on the stack of
/// the thread that waits for it.
struct Item {
  Item* previous = nullptr;
  Item* next = nullptr;
  bool isBarrier = false;
  SyncSubmission* submission = nullptr;
  WorkQueue::Task task;
};

class ItemList {
 public:
  // The analyzer does not see that the first item has none before it, and that remove() moves on.
  Item* front() const { return front_; }  // NOLINT(clang-analyzer-cplusplus.NewDelete)
  bool empty() const { return front_ == nullptr; }

  void append(Item& item) {
    item.previous = back_;
    (back_ ? back_->next : front_) = &item;
    back_ = &item;
  }

  void remove(Item& item) {
    (item.previous ? item.previous->next : front_) = item.next;
    (item.next ? item.next->previous : back_) = item.previous;
    item.previous = item.next = nullptr;
  }

 private:
  Item* front_ = nullptr;
  Item* back_ = nullptr;
};

class PooledQueue final : public WorkQueue, public PoolWork {
 public:
  PooledQueue(std::string label, Kind kind) : WorkQueue(std::move(label), kind) {}

  /// What is left is left because the queue is suspended for ever.
  ~PooledQueue() override {
    while (Item* item = items_.front()) {
      items_.remove(*item);
      delete item;
    }
  }

  void async(Task task) override { enqueue(std::move(task), isBarrier(false)); }
  void barrierAsync(Task task) override { enqueue(std::move(task), true); }

  void suspend() override {
    const std::lock_guard lock(mutex_);
    if (suspensions_++ == 0) state_.fetch_or(suspended, std::memory_order_acq_rel);
  }

  void resume() override {
    std::unique_lock lock(mutex_);
    if (suspensions_ == 0 || --suspensions_ > 0) return;
    state_.fetch_and(~suspended, std::memory_order_acq_rel);
    grantWhatMayRun();
    callForHelp(lock);
  }

  void runInPool() override {
    std::unique_lock lock(mutex_);
    --helpersInPool_;
    for (int taken = 0; taken < itemsPerTurn; ++taken) {
      grantWhatMayRun();
      Item* item = takeAsynchronous();
      callForHelp(lock);
      if (!item) return;
      run(item);
      lock.lock();
    }
    // Other queues want their turn too; this one gets another at the end of the pool's list.
    grantWhatMayRun();
    callForHelp(lock);
  }

 protected:
  void waitForTurn(bool barrier) override {
    std::unique_lock lock(mutex_);
    // Readers pass the asynchronous readers that wait for a thread; only a barrier holds them up.
    if (!barrier && barriersQueued_ == 0 && enterAsReader(barrierRuns | suspended)) return;
    SyncSubmission submission;
    Item own;
    own.isBarrier = barrier;
    own.submission = &submission;
    append(own);
    for (;;) {
      grantWhatMayRun();
      if (submission.granted) return callForHelp(lock);
      if (Item* other = takeAsynchronous()) {
        callForHelp(lock);
        run(other);
        lock.lock();
      } else {
        sleep(submission, lock);
      }
    }
  }

  void lookAfterTheList(bool barrier, State before) override {
    // A resume() or the last of the readers does.
    if ((before & suspended) != 0 || (!barrier && readers(before) > 1)) return;
    std::unique_lock lock(mutex_);
    grantWhatMayRun();
    callForHelp(lock);
  }

 private:
  static constexpr int itemsPerTurn = 64;

  static State readers(State state) { return state / oneReader; }

  void enqueue(Task task, bool barrier) {
    auto* item = new Item;
    item->isBarrier = barrier;
    item->task = std::move(task);
    std::unique_lock lock(mutex_);
    append(*item);
    grantWhatMayRun();
    callForHelp(lock);
  }

  /// The rest runs with the mutex held, but for run() and the end of callForHelp().

  void append(Item& item) {
    if (items_.empty()) state_.fetch_or(queued, std::memory_order_acq_rel);
    items_.append(item);
    if (item.isBarrier) {
      ++barriersQueued_;
    } else if (barriersQueued_ == 0) {
      if (item.submission) {
        frontIsCounted_ = false;
      } else {
        ++asyncReadersInFront_;
      }
    }
  }

  /// Takes an item that may run off the list and counts it as running.
  void begin(Item& item) {
    items_.remove(item);
    if (item.isBarrier) {
      --barriersQueued_;
      frontIsCounted_ = false;
    }
    state_.fetch_add(shareOf(item.isBarrier) - (items_.empty() ? queued : 0),
                     std::memory_order_acq_rel);
  }

  void grant(Item& item) {
    SyncSubmission& submission = *item.submission;
    begin(item);
    submission.granted = true;
    if (submission.asleep) submission.wake.notify_one();
  }

  void grantWhatMayRun() {
    const State state = state_.load(std::memory_order_acquire);
    if (items_.empty() || (state & (suspended | barrierRuns)) != 0) return;
    Item* front = items_.front();
    if (front->isBarrier) {
      if (front->submission && readers(state) == 0) grant(*front);
      return;
    }
    if (frontIsCounted_) return;
    asyncReadersInFront_ = 0;
    for (Item* item = front; item && !item->isBarrier;) {
      Item* following = item->next;
      if (item->submission) {
        grant(*item);
      } else {
        ++asyncReadersInFront_;
      }
      item = following;
    }
    frontIsCounted_ = true;
  }

  /// How many asynchronous items a thread could take now. A front that is not counted yet belongs
  /// to a barrier that has just left, and comes here next.
  std::size_t asynchronousThatMayRun() const {
    const State state = state_.load(std::memory_order_acquire);
    if (items_.empty() || (state & (suspended | barrierRuns)) != 0) return 0;
    const Item& front = *items_.front();
    if (!front.isBarrier) return frontIsCounted_ ? asyncReadersInFront_ : 0;
    return !front.submission && readers(state) == 0 ? 1 : 0;
  }

  Item* takeAsynchronous() {
    if (asynchronousThatMayRun() == 0) return nullptr;
    Item* item = items_.front();
    if (!item->isBarrier) --asyncReadersInFront_;
    begin(*item);
    return item;
  }

  /// Sees to it that as many threads are on their way as there are items to take: those that sleep
  /// in this queue, whatever the pool is doing, and then the pool's. Releases the mutex before it
  /// goes to the pool, because a thread that is awake at once would wait for it.
  void callForHelp(std::unique_lock<std::mutex>& lock) {
    const std::size_t wanted = asynchronousThatMayRun();
    while (helpersAwakening_ < wanted && firstSleeper_) {
      SyncSubmission& sleeper = *firstSleeper_;
      removeSleeper(sleeper);
      sleeper.calledToHelp = true;
      ++helpersAwakening_;
      sleeper.wake.notify_one();
    }
    const std::size_t coming = helpersAwakening_ + helpersInPool_;
    std::size_t missing = wanted > coming ? wanted - coming : 0;
    if (missing == 0) return lock.unlock();
    helpersInPool_ += missing;
    // Others may do it all, and let go of the queue, as soon as the mutex is free.
    const auto self = std::static_pointer_cast<PooledQueue>(shared_from_this());
    lock.unlock();
    for (; missing > 0; --missing) WorkPool::shared().submit(self);
  }

  void sleep(SyncSubmission& submission, std::unique_lock<std::mutex>& lock) {
    const WorkPool::Waiting waiting;
    submission.asleep = true;
    submission.nextSleeper = std::exchange(firstSleeper_, &submission);
    submission.wake.wait(lock, [&] { return submission.granted || submission.calledToHelp; });
    submission.asleep = false;
    if (submission.calledToHelp) {
      submission.calledToHelp = false;
      --helpersAwakening_;
    } else {
      removeSleeper(submission);
    }
  }

  void removeSleeper(SyncSubmission& submission) {
    SyncSubmission** link = &firstSleeper_;
    while (*link && *link != &submission) link = &(*link)->nextSleeper;
    if (*link) *link = submission.nextSleeper;
  }

  /// Without the mutex. What the task holds is gone before anybody can see that it has run.
  void run(Item* item) {
    const bool barrier = item->isBarrier;
    item->task();
    delete item;
    state_.fetch_sub(shareOf(barrier), std::memory_order_acq_rel);
  }

  std::mutex mutex_;
  ItemList items_;
  std::size_t barriersQueued_ = 0;
  /// Asynchronous items before the first barrier of the list; right when `frontIsCounted_`, and
  /// then there are no synchronous ones among them.
  std::size_t asyncReadersInFront_ = 0;
  bool frontIsCounted_ = true;
  SyncSubmission* firstSleeper_ = nullptr;
  std::size_t helpersAwakening_ = 0;
  std::size_t helpersInPool_ = 0;
  std::size_t suspensions_ = 0;
};

/// The global queue: nothing stands in the way of anything, so all of it goes to the pool at once.
class GlobalQueue final : public WorkQueue {
 public:
  GlobalQueue() : WorkQueue("global", Kind::global) {}

  void async(Task task) override { WorkPool::shared().submit(std::move(task)); }
  void barrierAsync(Task task) override { async(std::move(task)); }
  void asyncBriefly(Task task) override { WorkPool::shared().submitBrief(std::move(task)); }
  void suspend() override {}
  void resume() override {}

 protected:
  void waitForTurn(bool) override {}
  void lookAfterTheList(bool, State) override {}
};

}  // namespace

std::shared_ptr<WorkQueue> WorkQueue::serial(std::string label) {
  return std::make_shared<PooledQueue>(std::move(label), Kind::serial);
}

std::shared_ptr<WorkQueue> WorkQueue::concurrent(std::string label) {
  return std::make_shared<PooledQueue>(std::move(label), Kind::concurrent);
}

WorkQueue& WorkQueue::global() {
  static auto& queue = *new std::shared_ptr<WorkQueue>(std::make_shared<GlobalQueue>());
  return *queue;
}

void WorkQueue::after(std::chrono::nanoseconds delay, Task task) {
  Clock::current().schedule(delay, [queue = shared_from_this(), task = std::move(task)]() mutable {
    queue->async(std::move(task));
  });
}

void setWorkPoolSize(unsigned threads) { WorkPool::shared().setSize(threads, threads); }

}  // namespace qx
