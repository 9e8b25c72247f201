#pragma once

#include <cstdio>

#include "tests/abuse/Abuse.h"

namespace qx::test {

/// A client with manners beside those that have none: makes one call after the other, and says how
/// long they took.
class Bystander {
 public:
  using Microseconds = std::chrono::duration<double, std::micro>;

  explicit Bystander(Wire wire) : wire_(std::move(wire)) {}

  struct Latency {
    std::size_t count = 0;
    std::size_t failures = 0;
    double median = 0;
    double slowest = 0;  // of all but the slowest 0.1 %

    /// Whether the slowest 0.1 % begin within 20 times the median. The short form has too few calls
    /// and too many other tests beside it to say that: there only a call counts that was held up
    /// for longer than any wait for a turn on the processor.
    bool isEven() const {
      constexpr double heldUp = 10'000'000;
      return slowest <= (isSoak() ? 20 * median : heldUp);
    }
    std::string text() const {
      std::array<char, 120> text{};
      std::snprintf(text.data(), text.size(), "median %.0f µs, 99.9 %% within %.0f µs (%.1f ×)",
                    median, slowest, slowest / median);
      return text.data();
    }
  };

  void measure(const char* operation, const Array& arguments, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) once(operation, arguments);
  }
  void once(const char* operation, const Array& arguments) {
    const auto began = std::chrono::steady_clock::now();
    const bool answered = wire_.call(operation, arguments).outcome() == "success";
    times_.push_back(Microseconds(std::chrono::steady_clock::now() - began).count());
    if (!answered) ++failures_;
  }

  /// What was measured since the last time.
  Latency finish() {
    std::sort(times_.begin(), times_.end());
    Latency latency{times_.size(), std::exchange(failures_, 0), 0, 0};
    if (!times_.empty()) {
      latency.median = times_[times_.size() / 2];
      latency.slowest = times_[(times_.size() - 1) * 999 / 1000];
    }
    times_.clear();
    return latency;
  }

 private:
  Wire wire_;
  std::vector<double> times_;
  std::size_t failures_ = 0;
};

}  // namespace qx::test
