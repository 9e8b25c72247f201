#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>

namespace qx::test {

/// Shared with daemons that run with the library ended-at-call, as a file of that size.
struct Countdown {
  /// Calls until one of the daemons ends, by SIGKILL, right before that call; 0: none does.
  std::atomic<int> left;
  /// It stops there instead, by SIGSTOP.
  std::atomic<bool> isToStop;
  /// The process that has ended, 0 until then; and before which call.
  std::atomic<pid_t> ended;
  std::array<char, 32> call;
};

inline constexpr const char* countdownVariable = "DOCSOURCE_TEST_CALLS";

}  // namespace qx::test
