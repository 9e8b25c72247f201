#pragma once

#include <atomic>
#include <mutex>
#include <utility>

namespace qx {

/// Runs something once in the life of the process. For objects of static storage: it is initialised
/// at compile time and needs no destruction. Any thread may use it.
class OnceGuard {
 public:
  constexpr OnceGuard() = default;
  OnceGuard(const OnceGuard&) = delete;
  OnceGuard& operator=(const OnceGuard&) = delete;

  /// Runs `work` if nobody has, and returns when it has run, whoever ran it. Returns true for the
  /// call that did. `work` must not use the same guard, and must not throw.
  template <class F>
  bool run(F&& work) {
    if (done_.load(std::memory_order_acquire)) return false;
    const std::lock_guard lock(mutex_);
    if (done_.load(std::memory_order_relaxed)) return false;
    std::forward<F>(work)();
    done_.store(true, std::memory_order_release);
    return true;
  }

 private:
  std::atomic<bool> done_{false};
  std::mutex mutex_;
};

}  // namespace qx
