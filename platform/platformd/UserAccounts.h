#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/base/Error.h"

class UserAccounts;

/// What the programs of one user make this process hold. It is bounded, so that no user notices
/// another. When a charge is destroyed, what it counted is given back. Any thread may use it.
class UserAccount : public std::enable_shared_from_this<UserAccount> {
 public:
  enum class Kind : std::size_t {
    descriptor,  // connections, and descriptors that were sent over them
    call,        // that is not answered yet
    docSource,
    keyDirectory,
    byte,  // of frames that have not been handled, or not been taken by the peer
  };
  static constexpr std::size_t kinds = 5;

  /// A part of the account that is in use. An empty charge stands for nothing.
  class Charge {
   public:
    Charge() = default;
    Charge(std::shared_ptr<UserAccount> account, Kind kind, std::size_t amount)
        : account_(std::move(account)), kind_(kind), amount_(amount) {}
    Charge(Charge&& other) noexcept { *this = std::move(other); }
    Charge& operator=(Charge&& other) noexcept;
    Charge(const Charge&) = delete;
    Charge& operator=(const Charge&) = delete;
    ~Charge() { release(); }
    explicit operator bool() const { return account_ != nullptr; }

   private:
    void release();
    std::shared_ptr<UserAccount> account_;
    Kind kind_{};
    std::size_t amount_ = 0;
  };

  UserAccount(std::shared_ptr<UserAccounts> all, uid_t user) : all_(std::move(all)), user_(user) {}

  uid_t user() const { return user_; }

  /// Empty past the bound: the user gets EAGAIN.
  Charge charge(Kind kind, std::size_t amount = 1);
  /// Whether less than half of what the user may have of it is left.
  bool isHalfUsed(Kind kind) const;
  /// The error of that bound.
  static qx::Error exhausted();

  /// A row of tasks that run one after the other: those of one connection.
  class Lane;
  std::shared_ptr<Lane> makeLane();
  /// Runs a task that may block on the user's files, when those before it in the lane have run: on
  /// the calling thread when that is possible at once, otherwise on the global queue. Only a few of
  /// one user's tasks run at a time, whatever becomes of them; the others wait.
  void run(const std::shared_ptr<Lane>& lane, std::function<void()> task);

 private:
  friend class Charge;
  friend class UserAccounts;
  static constexpr std::size_t mostRunning = 6;

  void goOn(const std::shared_ptr<Lane>& lane);
  void begin(std::unique_lock<std::mutex>& lock);

  const std::shared_ptr<UserAccounts> all_;
  const uid_t user_;
  std::mutex mutex_;
  // Guarded by the mutex.
  std::size_t running_ = 0;
  std::deque<std::shared_ptr<Lane>> ready_;
  // Guarded by the mutex of all accounts.
  std::array<std::size_t, kinds> used_{};
};

/// The accounts of all users that hold something. Held by a shared pointer. Any thread may use it.
class UserAccounts : public std::enable_shared_from_this<UserAccounts> {
 public:
  /// Takes the number of descriptors of this process (getrlimit(2)). A user gets at most a
  /// sixteenth of them, and all users together half. The rest is for the work itself, and some of
  /// it for users who have next to nothing.
  explicit UserAccounts(std::size_t descriptors);

  std::shared_ptr<UserAccount> of(uid_t user);

 private:
  friend class UserAccount;
  /// What everybody may have as long as there are any.
  static constexpr std::size_t fewDescriptors = 16;

  bool take(UserAccount& account, UserAccount::Kind kind, std::size_t amount);
  void giveBack(UserAccount& account, UserAccount::Kind kind, std::size_t amount);
  bool isHalfUsed(const UserAccount& account, UserAccount::Kind kind);

  const std::size_t descriptors_;
  std::array<std::size_t, UserAccount::kinds> most_;  // for one user
  std::mutex mutex_;
  // Guarded by the mutex.
  std::size_t descriptorsUsed_ = 0;
  std::map<uid_t, std::weak_ptr<UserAccount>> accounts_;
};
