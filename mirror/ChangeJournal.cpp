#include "mirror/ChangeJournal.h"

#include <utility>

namespace docsource::mirror {
namespace {

constexpr std::size_t remembered = 4096;

}  // namespace

void ChangeJournal::note(ItemNumber number) {
  std::unique_lock lock(mutex_);
  const auto known = changeOf_.find(number);
  if (known != changeOf_.end()) changed_.erase(known->second);
  changeOf_[number] = ++last_;
  changed_.emplace(last_, number);
  if (changed_.size() > remembered) {
    forgotten_ = changed_.begin()->first;
    changeOf_.erase(changed_.begin()->second);
    changed_.erase(changed_.begin());
  }
  const auto waiting = std::exchange(waiting_, {});
  lock.unlock();
  for (const auto& isThere : waiting) isThere();
}

void ChangeJournal::whenAfter(std::uint64_t last, std::function<void()> isThere) {
  {
    const std::lock_guard lock(mutex_);
    if (last == last_) return waiting_.push_back(std::move(isThere));
  }
  isThere();
}

ChangeJournal::Changes ChangeJournal::after(std::uint64_t last) const {
  const std::lock_guard lock(mutex_);
  Changes changes{last_, std::nullopt};
  if (last < forgotten_ || last > last_) return changes;
  changes.items.emplace();
  for (auto each = changed_.upper_bound(last); each != changed_.end(); ++each) {
    changes.items->push_back(each->second);
  }
  return changes;
}

}  // namespace docsource::mirror
