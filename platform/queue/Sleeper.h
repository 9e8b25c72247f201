#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qx {

/// The sleep of one thread, which another one ends. Waking costs one system call (futex(2)), and
/// none when the thread had not fallen asleep yet. Neither side takes a lock, so the thread that is
/// woken does not run into the one that wakes it.
///
/// One thread sleeps, and one other wakes it, once. What the waking thread did before wake() is
/// visible to the other one after it.
class Sleeper {
 public:
  Sleeper() = default;
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  /// Returns when wake() was called, even if that was before.
  void sleep();
  /// Does the same, or returns when the time has passed. Returns whether it was woken.
  bool sleepFor(std::chrono::nanoseconds time);
  /// The sleeper may be gone as soon as this is called, not only when it has returned.
  void wake();

 private:
  enum : std::uint32_t { awake, asleep, woken };

  /// Waits until it is woken, or until the kernel says that the time has passed. Returns whether it
  /// was woken.
  bool wait(const std::chrono::nanoseconds* time);

  std::atomic<std::uint32_t> state_{awake};
};

}  // namespace qx
