/// The process's clock, one thread that waits for the next of its timers, and the clock of tests,
/// whose time is what the test says.

#include "platform/queue/Clock.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <unordered_map>
#include <utility>

#include "platform/queue/Thread.h"

namespace qx {

namespace {

/// Actions in the order in which they fall due, those of the same instant as they were added.
class TimerTable {
 public:
  Clock::TimerID add(Clock::Duration due, std::function<void()> action) {
    const Clock::TimerID timer = ++lastTimer_;
    actions_.emplace(Key{due, timer}, std::move(action));
    dueTimes_.emplace(timer, due);
    return timer;
  }

  /// The action, for its destruction outside the caller's lock; empty when the id is unknown.
  std::function<void()> remove(Clock::TimerID timer) {
    const auto due = dueTimes_.find(timer);
    if (due == dueTimes_.end()) return nullptr;
    const auto entry = actions_.find(Key{due->second, timer});
    auto action = std::move(entry->second);
    actions_.erase(entry);
    dueTimes_.erase(due);
    return action;
  }

  bool empty() const { return actions_.empty(); }
  bool holds(Clock::Duration due) const {
    const auto next = actions_.lower_bound(Key{due, 0});
    return next != actions_.end() && next->first.first == due;
  }
  Clock::TimerID first() const { return actions_.begin()->first.second; }
  Clock::Duration firstDue() const { return actions_.begin()->first.first; }

 private:
  using Key = std::pair<Clock::Duration, Clock::TimerID>;
  std::map<Key, std::function<void()>> actions_;
  std::unordered_map<Clock::TimerID, Clock::Duration> dueTimes_;
  Clock::TimerID lastTimer_ = 0;
};

/// `now` + `delay`, without a step into the past or over the end of time.
Clock::Duration dueTime(Clock::Duration now, Clock::Duration delay) {
  return now + std::clamp(delay, Clock::Duration::zero(), Clock::Duration::max() - now);
}

/// Counts on std::chrono::steady_clock, which is CLOCK_MONOTONIC in the C++ library here, for the
/// condition variable too.
class MonotonicClock final : public Clock {
 public:
  Duration now() const override { return std::chrono::steady_clock::now().time_since_epoch(); }

  TimerID schedule(Duration delay, std::function<void()> action) override {
    const Duration due = dueTime(now(), delay);
    const std::lock_guard lock(mutex_);
    const TimerID timer = timers_.add(due, std::move(action));
    if (!threadStarted_) {
      auto thread = startThread("clock", [this] { work(); });
      threadStarted_ = thread.joinable();
      if (threadStarted_) thread.detach();
    } else if (timers_.first() == timer) {
      firstChanged_.notify_one();
    }
    return timer;
  }

  void cancel(TimerID timer) override {
    std::function<void()> action;
    const std::lock_guard lock(mutex_);
    action = timers_.remove(timer);
  }

 private:
  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (timers_.empty()) {
        firstChanged_.wait(lock);
      } else if (const Duration due = timers_.firstDue(); due > now()) {
        firstChanged_.wait_until(lock, std::chrono::steady_clock::time_point(due));
      } else {
        auto action = timers_.remove(timers_.first());
        lock.unlock();
        action();
        action = nullptr;
        lock.lock();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable firstChanged_;
  TimerTable timers_;
  bool threadStarted_ = false;
};

std::atomic<Clock*> replacement{nullptr};

}  // namespace

Clock& Clock::current() {
  if (Clock* clock = replacement.load(std::memory_order_acquire)) return *clock;
  static auto& clock = *new MonotonicClock;
  return clock;
}

void Clock::setCurrent(Clock& clock) { replacement.store(&clock, std::memory_order_release); }

struct ManualClock::State {
  std::mutex mutex;
  std::condition_variable added;
  TimerTable timers;
  Duration now{};
};

ManualClock::ManualClock() : state_(std::make_shared<State>()) {}

Clock::Duration ManualClock::now() const {
  const std::lock_guard lock(state_->mutex);
  return state_->now;
}

Clock::TimerID ManualClock::schedule(Duration delay, std::function<void()> action) {
  const std::lock_guard lock(state_->mutex);
  const TimerID timer = state_->timers.add(dueTime(state_->now, delay), std::move(action));
  state_->added.notify_all();
  return timer;
}

void ManualClock::cancel(TimerID timer) {
  std::function<void()> action;
  const std::lock_guard lock(state_->mutex);
  action = state_->timers.remove(timer);
}

void ManualClock::advance(Duration duration) {
  const auto state = state_;
  std::unique_lock lock(state->mutex);
  const Duration end = dueTime(state->now, duration);
  while (!state->timers.empty() && state->timers.firstDue() <= end) {
    state->now = std::max(state->now, state->timers.firstDue());
    auto action = state->timers.remove(state->timers.first());
    lock.unlock();
    action();
    action = nullptr;
    lock.lock();
  }
  state->now = std::max(state->now, end);
}

void ManualClock::waitForActionIn(Duration duration) const {
  std::unique_lock lock(state_->mutex);
  state_->added.wait(lock, [&] { return state_->timers.holds(state_->now + duration); });
}

}  // namespace qx
