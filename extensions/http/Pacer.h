#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <random>

namespace docsource::http {

/// What became of one attempt at a request.
struct Attempt {
  enum class Outcome {
    /// Answered, whatever the answer is.
    answered,
    /// The server said that it did nothing, and to come back later (425, 429, 503).
    refused,
    /// Nothing was sent: no connection came about.
    notSent,
    /// What became of it is unknown: the connection broke, or a proxy gave up (502, 504).
    unknown,
  };
  Outcome outcome = Outcome::answered;
  /// What the server asked for.
  std::optional<std::chrono::seconds> retryAfter;
};

/// Decides, for all requests to one server, which are sent again and when.
///
/// Only short troubles are waited for here, a few seconds at most: whoever uses the remote knows
/// better what else there is to do meanwhile. A request that changes something is repeated only
/// when it is certain that it was not carried out.
///
/// Threads: any.
class Pacer {
 public:
  /// Waits; false when the wait was given up.
  using Wait = std::function<bool(std::chrono::milliseconds)>;

  /// Absent: really waits, until stop().
  explicit Pacer(Wait wait = {});

  /// To be called before a request is sent. The time for which the server does not want to be asked
  /// anything, when that is too long to be waited for here.
  std::optional<std::chrono::seconds> turn();

  /// To be called after it. Whether to send it once more, after a wait that has then passed.
  /// `number` counts the attempts from 1; `isRepeatable` says that doing it twice is doing it once.
  bool again(const Attempt& attempt, unsigned number, bool isRepeatable);

  /// Waits for something that the server has to finish; false when there is no time left.
  bool pause(std::chrono::milliseconds time) { return wait_(time); }

  /// Nothing waits from now on.
  void stop();

 private:
  using Time = std::chrono::steady_clock::time_point;

  bool reallyWait(std::chrono::milliseconds time);

  Wait wait_;
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool isStopped_ = false;
  /// Before which the server does not want to be asked.
  Time notBefore_{};
  std::minstd_rand random_{std::random_device()()};
};

}  // namespace docsource::http
