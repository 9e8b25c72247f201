#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qx {

/// The sleep of one thread, which another one ends. Waking costs one system call (futex(2)), and
/// none where the thread had not fallen asleep yet; no lock is held or taken by either side, so
/// that who is woken does not run into who wakes it.
///
/// One thread sleeps, one other wakes it, once. What the waking thread did before wake() is seen by
/// the other one after it.
class Sleeper {
 public:
  Sleeper() = default;
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  /// Returns when wake() was called, be it before.
  void sleep();
  /// The same, or when the time has passed; whether it was woken.
  bool sleepFor(std::chrono::nanoseconds time);
  /// The sleeper may be gone as soon as this is called, not only when it has returned.
  void wake();

 private:
  enum : std::uint32_t { awake, asleep, woken };

  /// Until woken, or until the kernel says that the time has passed; whether it was woken.
  bool wait(const std::chrono::nanoseconds* time);

  std::atomic<std::uint32_t> state_{awake};
};

}  // namespace qx
