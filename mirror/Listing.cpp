#include "mirror/Listing.h"

#include <utility>

namespace docsource::mirror {

Listing::Listing(Remote& remote, ItemNumber directory, std::string path, std::uint64_t asOf)
    : remote_(remote), directory_(directory), path_(std::move(path)), asOf_(asOf) {}

bool Listing::begin() {
  const std::lock_guard lock(mutex_);
  return !isAbandoned_ && !std::exchange(isBegun_, true);
}

void Listing::run() {
  constexpr std::size_t piece = 64;
  constexpr std::size_t most = 16;
  if (!begin()) return;
  // On the thread that takes them it would wait for itself.
  const bool mayWait = std::this_thread::get_id() != taker_;
  std::vector<RemoteItem> entries;
  const auto hand = [&] {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return !mayWait || isAbandoned_ || waiting_.size() < most; });
    if (!isAbandoned_) waiting_.push_back(std::move(entries));
    entries.clear();
    changed_.notify_all();
  };
  auto result = remote_.list(path_, [&](const RemoteItem& item) {
    entries.push_back(item);
    if (entries.size() >= piece) hand();
  });
  hand();
  const std::lock_guard lock(mutex_);
  result_ = std::move(result);
  hasEnded_ = true;
  changed_.notify_all();
}

Result<void> Listing::take(const Remote::Visitor& visit) {
  if (begin()) return remote_.list(path_, visit);
  while (true) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return isAbandoned_ || hasEnded_ || !waiting_.empty(); });
    if (isAbandoned_) return remoteError(RemoteProblem::cancelled, "The listing was given up.");
    if (waiting_.empty()) return result_;
    const auto entries = std::move(waiting_.front());
    waiting_.pop_front();
    changed_.notify_all();
    lock.unlock();
    for (const auto& entry : entries) visit(entry);
  }
}

void Listing::abandon() {
  const std::lock_guard lock(mutex_);
  isAbandoned_ = true;
  waiting_.clear();
  changed_.notify_all();
}

}  // namespace docsource::mirror
