// The one place where retries are decided.

#include "extensions/http/Pacer.h"

#include <algorithm>

namespace docsource::http {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr unsigned mostAttempts = 4;
constexpr milliseconds firstDelay{100};
/// The longest wait that is done here; longer ones are left to who uses the remote.
constexpr milliseconds patience{5000};
/// A server that says "later" without a time.
constexpr seconds unsaidRetryAfter{2};
/// Nobody is locked out for longer than this by one answer, however wrong a header is.
constexpr seconds mostRetryAfter{3600};

}  // namespace

Pacer::Pacer(Wait wait) : wait_(std::move(wait)) {
  if (!wait_) wait_ = [this](milliseconds time) { return reallyWait(time); };
}

bool Pacer::reallyWait(milliseconds time) {
  std::unique_lock lock(mutex_);
  return !stopped_.wait_for(lock, time, [this] { return isStopped_; });
}

void Pacer::stop() {
  const std::lock_guard lock(mutex_);
  isStopped_ = true;
  stopped_.notify_all();
}

std::optional<seconds> Pacer::turn() {
  milliseconds left{};
  {
    const std::lock_guard lock(mutex_);
    left = std::chrono::ceil<milliseconds>(notBefore_ - std::chrono::steady_clock::now());
  }
  if (left <= milliseconds::zero()) return std::nullopt;
  if (left <= patience && wait_(left)) return std::nullopt;
  return std::chrono::ceil<seconds>(left);
}

bool Pacer::again(const Attempt& attempt, unsigned number, bool isRepeatable) {
  milliseconds delay = firstDelay * (1U << (2 * std::min(number - 1, 3U)));
  switch (attempt.outcome) {
    case Attempt::Outcome::answered:
      return false;
    case Attempt::Outcome::refused: {
      const auto asked = std::clamp(attempt.retryAfter.value_or(unsaidRetryAfter), seconds::zero(),
                                    mostRetryAfter);
      const std::lock_guard lock(mutex_);
      notBefore_ = std::max(notBefore_, std::chrono::steady_clock::now() + asked);
      if (asked > patience) return false;
      delay = std::max<milliseconds>(asked, delay);
      break;
    }
    case Attempt::Outcome::notSent:
      break;
    case Attempt::Outcome::unknown:
      if (!isRepeatable) return false;
      break;
  }
  if (number >= mostAttempts) return false;
  {
    // Those who failed together do not come back together.
    const std::lock_guard lock(mutex_);
    delay +=
        milliseconds(std::uniform_int_distribution<std::int64_t>(0, delay.count() / 4)(random_));
  }
  return wait_(delay);
}

}  // namespace docsource::http
