#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace qx {

/// The source of delays: the monotonic clock (CLOCK_MONOTONIC, clock_gettime(2)) in the programs,
/// and in tests a ManualClock that a test moves.
class Clock {
 public:
  using Duration = std::chrono::nanoseconds;
  /// Never 0.
  using TimerID = std::uint64_t;

  virtual ~Clock() = default;

  /// The time since an arbitrary point in the past.
  virtual Duration now() const = 0;

  /// Runs `action` once, when `delay` has passed, on a thread of the clock's choosing. The action
  /// must be short; longer work it submits to a queue.
  virtual TimerID schedule(Duration delay, std::function<void()> action) = 0;

  /// Prevents the action from running, unless it has begun already. Unknown ids are ignored.
  virtual void cancel(TimerID timer) = 0;

  /// The clock of this process.
  static Clock& current();
  /// Sets it, for tests, before anything is scheduled. The clock must outlive every use of it.
  static void setCurrent(Clock& clock);
};

/// A clock that stands still until a test moves it.
class ManualClock final : public Clock {
 public:
  Duration now() const override;
  TimerID schedule(Duration delay, std::function<void()> action) override;
  void cancel(TimerID timer) override;

  /// Moves the time forward and runs, on the calling thread and in order of time, what falls due,
  /// including what those actions schedule within the span.
  void advance(Duration duration);

  /// Waits until an action falls due in exactly that time. For a test that must not move the clock
  /// before the code under test has begun its delay.
  void waitForActionIn(Duration duration) const;

 private:
  struct State;
  std::shared_ptr<State> state_;

 public:
  ManualClock();
};

}  // namespace qx
