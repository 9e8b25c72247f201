#include "platform/platformd/UserAccounts.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/queue/WorkPool.h"
#include "platform/queue/WorkQueue.h"

class UserAccount::Lane {
 public:
  std::deque<std::function<void()>> tasks;  // under the account's mutex
  bool isBusy = false;                      // something of it runs, or is about to
};

UserAccount::Charge& UserAccount::Charge::operator=(Charge&& other) noexcept {
  release();
  account_ = std::exchange(other.account_, nullptr);
  kind_ = other.kind_;
  amount_ = other.amount_;
  return *this;
}

void UserAccount::Charge::release() {
  if (const auto account = std::exchange(account_, nullptr)) {
    account->all_->giveBack(*account, kind_, amount_);
  }
}

UserAccount::Charge UserAccount::charge(Kind kind, std::size_t amount) {
  if (!all_->take(*this, kind, amount)) return {};
  return {shared_from_this(), kind, amount};
}

bool UserAccount::isHalfUsed(Kind kind) const { return all_->isHalfUsed(*this, kind); }

qx::Error UserAccount::exhausted() {
  return qx::posixError(EAGAIN, "There is too much under way for this user");
}

std::shared_ptr<UserAccount::Lane> UserAccount::makeLane() { return std::make_shared<Lane>(); }

void UserAccount::run(const std::shared_ptr<Lane>& lane, std::function<void()> task) {
  {
    std::unique_lock lock(mutex_);
    if (lane->isBusy || running_ >= mostRunning) {
      lane->tasks.push_back(std::move(task));
      if (std::exchange(lane->isBusy, true)) return;
      ready_.push_back(lane);
      return;
    }
    lane->isBusy = true;
    ++running_;
  }
  {
    // Nobody knows how long a file system takes that the user may have brought.
    const qx::WorkPool::Waiting waiting;
    task();
  }
  goOn(lane);
}

/// After one of the lane's tasks has been run.
void UserAccount::goOn(const std::shared_ptr<Lane>& lane) {
  std::unique_lock lock(mutex_);
  --running_;
  if (lane->tasks.empty()) {
    lane->isBusy = false;
  } else {
    ready_.push_back(lane);
  }
  begin(lock);
}

/// Has what waits run, as much as may.
void UserAccount::begin(std::unique_lock<std::mutex>& lock) {
  while (running_ < mostRunning && !ready_.empty()) {
    const auto lane = std::move(ready_.front());
    ready_.pop_front();
    auto task = std::move(lane->tasks.front());
    lane->tasks.pop_front();
    ++running_;
    lock.unlock();
    qx::WorkQueue::global().async([self = shared_from_this(), lane, task = std::move(task)] {
      {
        const qx::WorkPool::Waiting waiting;
        task();
      }
      self->goOn(lane);
    });
    lock.lock();
  }
}

UserAccounts::UserAccounts(std::size_t descriptors)
    : descriptors_(descriptors),
      most_{std::clamp<std::size_t>(descriptors / 16, 64, 1024), 2048, 256, 16, 64U << 20U} {}

std::shared_ptr<UserAccount> UserAccounts::of(uid_t user) {
  const std::lock_guard lock(mutex_);
  auto& known = accounts_[user];
  if (auto account = known.lock()) return account;
  std::erase_if(accounts_,
                [&](const auto& entry) { return entry.first != user && entry.second.expired(); });
  auto account = std::make_shared<UserAccount>(shared_from_this(), user);
  accounts_[user] = account;
  return account;
}

bool UserAccounts::take(UserAccount& account, UserAccount::Kind kind, std::size_t amount) {
  const auto place = static_cast<std::size_t>(kind);
  const std::lock_guard lock(mutex_);
  std::size_t& used = account.used_[place];
  if (amount > most_[place] - used) return false;
  if (kind == UserAccount::Kind::descriptor) {
    const std::size_t all =
        used + amount <= fewDescriptors ? descriptors_ / 4 * 3 : descriptors_ / 2;
    if (descriptorsUsed_ + amount > all) return false;
    descriptorsUsed_ += amount;
  }
  used += amount;
  return true;
}

void UserAccounts::giveBack(UserAccount& account, UserAccount::Kind kind, std::size_t amount) {
  const std::lock_guard lock(mutex_);
  account.used_[static_cast<std::size_t>(kind)] -= amount;
  if (kind == UserAccount::Kind::descriptor) descriptorsUsed_ -= amount;
}

bool UserAccounts::isHalfUsed(const UserAccount& account, UserAccount::Kind kind) {
  const auto place = static_cast<std::size_t>(kind);
  const std::lock_guard lock(mutex_);
  return account.used_[place] > most_[place] / 2;
}
