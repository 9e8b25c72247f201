#include "mirror/Arrival.h"

#include <algorithm>
#include <utility>

#include "platform/queue/WorkQueue.h"

namespace docsource::mirror {
namespace {

/// While somebody waits, what comes in that time is asked for at once, within these limits.
constexpr std::chrono::milliseconds moment{400};
constexpr std::uint64_t leastAtOnce = 256U << 10U;
constexpr std::uint64_t mostAtOnce = 64U << 20U;
constexpr std::uint64_t mostWithoutReaders = 256U << 20U;

}  // namespace

void Arrival::begin(std::uint64_t size, const qx::ByteRanges& there, bool canJump,
                    Publish publish) {
  const std::lock_guard lock(mutex_);
  size_ = size;
  canJump_ = canJump;
  there_ = there;
  position_ = 0;
  inAMoment_ = leastAtOnce;
  publish_ = std::move(publish);
  error_.reset();
  publishSoon();
}

std::optional<qx::ByteRange> Arrival::missingWanted() const {
  for (const auto& bytes : wanted_) {
    if (const auto missing = there_.missing(bytes.begin, std::min(bytes.end, size_)))
      return missing;
  }
  return std::nullopt;
}

std::optional<qx::ByteRange> Arrival::next() {
  const std::lock_guard lock(mutex_);
  asked_ = std::chrono::steady_clock::now();
  isForReaders_ = canJump_ && hasReaders_;
  const auto wanted = isForReaders_ ? missingWanted() : std::nullopt;
  if (wanted) position_ = wanted->begin;
  auto range = there_.missing(position_, size_);
  if (!range) range = there_.missing(0, size_);
  if (!range || !canJump_) return range;
  const auto most =
      isForReaders_ ? std::max(inAMoment_, wanted ? wanted->size() : 0) : mostWithoutReaders;
  range->end = std::min(range->end, range->begin + most);
  return range;
}

bool Arrival::shallTurn() const {
  const std::lock_guard lock(mutex_);
  return canJump_ && !isForReaders_ && missingWanted().has_value();
}

void Arrival::add(qx::ByteRange bytes) {
  const std::lock_guard lock(mutex_);
  there_.add(bytes);
  position_ = bytes.end;
  const auto took =
      std::max(std::chrono::steady_clock::now() - asked_, std::chrono::steady_clock::duration(1));
  const double moments = std::chrono::duration<double>(moment) / took;
  inAMoment_ = static_cast<std::uint64_t>(std::clamp(
      static_cast<double>(bytes.size()) * moments, static_cast<double>(leastAtOnce),
      static_cast<double>(std::min(mostAtOnce, 4 * std::max(inAMoment_, bytes.size())))));
  publishSoon();
}

Result<void> Arrival::end() {
  std::unique_lock lock(mutex_);
  publish_ = nullptr;
  published_.wait(lock, [this] { return !isPublishing_; });
  if (error_) return *error_;
  return {};
}

void Arrival::want(qx::ByteRange bytes) {
  const std::lock_guard lock(mutex_);
  hasReaders_ = true;
  if (std::find(wanted_.begin(), wanted_.end(), bytes) == wanted_.end()) wanted_.push_back(bytes);
  publishSoon();
}

qx::ByteRanges Arrival::there() const {
  const std::lock_guard lock(mutex_);
  return there_;
}

bool Arrival::isPublishable() const {
  return publish_ && std::any_of(wanted_.begin(), wanted_.end(), [this](const auto& wanted) {
           return there_.contains(wanted.within(size_));
         });
}

void Arrival::publishSoon() {
  if (isPublishing_ || !isPublishable()) return;
  isPublishing_ = true;
  qx::WorkQueue::global().async([this] { publish(); });
}

void Arrival::publish() {
  std::unique_lock lock(mutex_);
  while (isPublishable()) {
    const auto there = there_;
    std::erase_if(wanted_,
                  [&](const auto& wanted) { return there.contains(wanted.within(size_)); });
    const auto publish = publish_;
    lock.unlock();
    const auto published = publish(there);
    lock.lock();
    if (published) continue;
    error_ = published.error();
    publish_ = nullptr;
  }
  isPublishing_ = false;
  published_.notify_all();
}

}  // namespace docsource::mirror
