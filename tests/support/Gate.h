#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace qx::test {

/// Counts passages and lets others wait for them; the way in which tests wait for a condition
/// across threads.
class Gate {
 public:
  void pass() {
    const std::lock_guard lock(mutex_);
    ++passed_;
    changed_.notify_all();
  }

  /// Waits until pass() has been called `count` times altogether.
  void wait(std::size_t count = 1) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return passed_ >= count; });
  }

  std::size_t passed() const {
    const std::lock_guard lock(mutex_);
    return passed_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t passed_ = 0;
};

}  // namespace qx::test
