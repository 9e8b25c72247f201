#include "platform/queue/Sleeper.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace qx {

void Sleeper::sleep() { wait(nullptr); }

bool Sleeper::sleepFor(std::chrono::nanoseconds time) { return wait(&time); }

bool Sleeper::wait(const std::chrono::nanoseconds* time) {
  std::uint32_t expected = awake;
  state_.compare_exchange_strong(expected, asleep, std::memory_order_acquire);
  timespec limit{};
  if (time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(*time);
    limit = {seconds.count(), (*time - seconds).count()};
  }
  while (state_.load(std::memory_order_acquire) != woken) {
    const long waited = ::syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, asleep,
                                  time ? &limit : nullptr, nullptr, 0);
    if (waited != 0 && errno == ETIMEDOUT) {
      // Who wakes meanwhile has woken: the exchange decides.
      expected = asleep;
      return !state_.compare_exchange_strong(expected, awake, std::memory_order_acquire);
    }
  }
  return true;
}

void Sleeper::wake() {
  const auto* const word = &state_;
  if (state_.exchange(woken, std::memory_order_acq_rel) != asleep) return;
  // The word may be somebody else's by now, who then wakes up and finds nothing: as every wait may.
  ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace qx
