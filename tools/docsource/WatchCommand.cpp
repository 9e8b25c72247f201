// `docsource watch`: tells what happens in the accounts, as it happens. A file manager shows it
// (--json), a person reads it, and with --notify the desktop is told what a person has to see to.
//
// Each account has a thread of its own, which waits for its process and then for that to have
// something to tell. They end with the program, which is ended by a signal or when nobody reads any
// more what it prints.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "platform/files/DirectoryWatch.h"
#include "platform/files/Places.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Desktop.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

using docsource::Result;

template <class T>
T valueOf(const qx::Dictionary& dictionary, const char* key) {
  const auto* value = qx::find<T>(dictionary, key);
  return value ? *value : T();
}
std::string pathIn(const qx::Dictionary& dictionary, const char* key) {
  const auto* url = qx::find<qx::URL>(dictionary, key);
  return url ? url->path().value_or("") : "";
}
std::string documents(std::uint64_t count) {
  return count == 1 ? "One document" : std::to_string(count) + " documents";
}

/// The one stream that all accounts print to. Any thread.
class Teller {
 public:
  explicit Teller(bool json) : json_(json) {}
  void tell(const qx::Dictionary& event, const std::string& word, const std::string& subject,
            const std::string& reason = "") {
    constexpr std::size_t column = 12;
    auto line = word + std::string(column - std::min(column - 1, word.size()), ' ') +
                onOneLine(subject) + (reason.empty() ? "" : ": " + onOneLine(reason));
    const std::lock_guard lock(mutex_);
    if (!print((json_ ? toJSON(event) : line) + "\n")) ::_exit(operationFailed);
  }

 private:
  const bool json_;
  std::mutex mutex_;
};

/// What goes on in one account, for those who want to know of it. One thread, its own.
class AccountObserver {
 public:
  virtual ~AccountObserver() = default;
  /// How the account is, at first and whenever that is different.
  virtual void account(const qx::Dictionary& health) = 0;
  /// An item is different.
  virtual void item(const qx::Dictionary& status) = 0;
  /// All items may be.
  virtual void everything() = 0;
  virtual void conflict(const qx::Dictionary& conflict) = 0;
  virtual void transfer(const qx::Dictionary& transfer) = 0;
  /// Called now and then while something is under way or waits; whether it wants to be again though
  /// nothing is under way.
  virtual bool look() { return false; }
};

/// Prints it.
class Printer final : public AccountObserver {
 public:
  Printer(Account account, Teller& teller) : account_(std::move(account)), teller_(teller) {}

  void account(const qx::Dictionary& health) override {
    qx::Dictionary event{{"event", "account"},
                         {"name", account_.name},
                         {"state", valueOf<std::string>(health, "state")},
                         {"documents", linkFor(account_.name)},
                         {"storage", account_.storage}};
    const auto reason = valueOf<std::string>(health, "reason");
    if (!reason.empty()) event["reason"] = reason;
    teller_.tell(event, valueOf<std::string>(health, "state"), "account " + account_.name, reason);
  }
  void item(const qx::Dictionary& status) override {
    const auto path = pathIn(status, "URL"), reason = valueOf<std::string>(status, "reason");
    const auto state = valueOf<std::string>(status, "state");
    if (state.empty()) return;  // it is gone meanwhile
    qx::Dictionary event{{"event", "item"},
                         {"path", path},
                         {"state", state},
                         {"pinned", valueOf<bool>(status, "isPinned")}};
    if (!reason.empty()) event["reason"] = reason;
    teller_.tell(event, state, familiarPath(account_, path), reason);
  }
  void everything() override {
    teller_.tell({{"event", "everything"}, {"account", account_.name}}, "everything",
                 "account " + account_.name, "all its documents may be different");
  }
  void conflict(const qx::Dictionary& conflict) override {
    const auto theirs = pathIn(conflict, "URL"), ours = pathIn(conflict, "copyURL");
    teller_.tell(
        {{"event", "conflict"}, {"account", account_.name}, {"theirs", theirs}, {"ours", ours}},
        "conflict", familiarPath(account_, theirs), "yours is " + familiarPath(account_, ours));
  }
  void transfer(const qx::Dictionary& transfer) override {
    const auto path = pathIn(transfer, "URL");
    const auto done = valueOf<std::int64_t>(transfer, "done");
    const auto total = valueOf<std::int64_t>(transfer, "total");
    const bool isUpload = valueOf<bool>(transfer, "isUpload");
    teller_.tell(
        {{"event", "transfer"},
         {"path", path},
         {"direction", isUpload ? "up" : "down"},
         {"done", done},
         {"total", total}},
        (isUpload ? "up " : "down ") + std::to_string(total > 0 ? 100 * done / total : 0) + "%",
        familiarPath(account_, path));
  }

 private:
  const Account account_;
  Teller& teller_;
};

/// Tells the desktop what only a person can settle: each conflict once, and what has failed for
/// long or needs an answer once for as long as it is so.
class Notifier final : public AccountObserver {
 public:
  using Clock = std::chrono::steady_clock;

  Notifier(Account account, std::chrono::milliseconds patience)
      : account_(std::move(account)), patience_(patience) {}

  void account(const qx::Dictionary& health) override {
    failed_ = static_cast<std::uint64_t>(valueOf<std::int64_t>(health, "failed"));
    if (failed_ == 0) failingSince_.reset(), isToldOfFailures_ = false;
    if (failed_ > 0 && !failingSince_) failingSince_ = Clock::now();
    const auto state = valueOf<std::string>(health, "state");
    const bool needsSomebody = state == "unauthorised" || state == "wrong-remote" ||
                               state == "needs-confirmation" || state == "broken";
    if (needsSomebody && state != toldState_) {
      const bool isToConfirm = state == "needs-confirmation";
      notify("The account " + account_.name + " needs you",
             valueOf<std::string>(health, "reason") +
                 (isToConfirm ? " " + remedyFor(account_, state) : ""));
    }
    toldState_ = state;
    look();
  }
  void item(const qx::Dictionary& /*status*/) override {}
  void everything() override {}
  void transfer(const qx::Dictionary& /*transfer*/) override {}
  void conflict(const qx::Dictionary& conflict) override {
    conflicts_.push_back(familiarPath(account_, pathIn(conflict, "URL")));
  }
  bool look() override {
    if (!conflicts_.empty()) {
      constexpr std::size_t named = 3;
      std::string text = "Both versions are kept:\n";
      for (std::size_t i = 0; i < std::min(named, conflicts_.size()); ++i) {
        text += onOneLine(conflicts_[i]) + "\n";
      }
      if (conflicts_.size() > named) text += "…\n";
      notify(documents(conflicts_.size()) + " in " + account_.name + " changed on both sides",
             text + "To settle it: docsource conflicts");
      conflicts_.clear();
    }
    if (!failingSince_ || isToldOfFailures_) return false;
    if (Clock::now() - *failingSince_ < patience_) return true;
    isToldOfFailures_ = true;
    notify(documents(failed_) + " of " + account_.name + " could not be carried over",
           "It is tried again and again. What is wrong: docsource status -r " +
               onOneLine(linkFor(account_.name)));
    return false;
  }

 private:
  void notify(const std::string& title, const std::string& text) {
    static std::mutex oneAtATime;
    const std::lock_guard lock(oneAtATime);
    if (desktop::notify(title, text) == 0) {
      std::fprintf(stderr, "The desktop takes no notifications: %s\n", onOneLine(title).c_str());
    }
  }

  const Account account_;
  const std::chrono::milliseconds patience_;
  std::uint64_t failed_ = 0;
  std::optional<Clock::time_point> failingSince_;
  bool isToldOfFailures_ = false;
  std::string toldState_;
  std::vector<std::string> conflicts_;
};

/// Follows one account, from its process's start to its end, until the account is removed.
class Follower {
 public:
  Follower(Account account, std::unique_ptr<AccountObserver> observer)
      : account_(std::move(account)), observer_(std::move(observer)) {}

  void run() {
    const qx::Dictionary away{{"state", "not-running"}};
    if (!AccountProcess::of(account_)) observer_->account(away);
    for (auto process = AccountProcess::whenRunning(account_, {}); process;
         process = AccountProcess::whenRunning(account_, {})) {
      last_ = 0;
      health_.clear();
      while (next(*process)) continue;
      if (accountCalled(account_.name)) observer_->account(away);
    }
    observer_->account({{"state", "removed"}});
  }

 private:
  /// What is told next; an error when the process is gone.
  Result<void> next(AccountProcess& process) {
    const std::function<bool()> looking = [&] {
      look(process);
      return true;
    };
    const auto changes = process.ask<std::int64_t, qx::Array>(
        [&](DSAccount& account, auto completion) {
          account.changesAfter_completion(last_, std::move(completion));
        },
        {}, isMoving_ || wantsToLook_ ? looking : std::function<bool()>(), lookedAgain);
    if (!changes) return changes.error();
    const auto& [last, items] = *changes;
    if (auto told = tellHealth(process); !told) return told;
    if (!items) observer_->everything();
    if (!items) told_.clear();
    for (const auto& value : items.value_or(qx::Array())) {
      const auto* item = value.as<qx::Dictionary>();
      if (item && isNews(*item)) observer_->item(*item);
    }
    if (auto told = tellConflicts(process); !told) return told;
    look(process);
    last_ = last.value_or(0);
    return {};
  }

  Result<void> tellHealth(AccountProcess& process) {
    const auto answer = process.ask<qx::Dictionary>(
        [](DSAccount& each, auto completion) { each.healthCompletion(std::move(completion)); },
        patience);
    if (!answer) return answer.error();
    const auto health = std::get<0>(*answer).value_or(qx::Dictionary());
    qx::Dictionary telling;
    for (const char* key : {"state", "reason", "failed"}) {
      if (const auto found = health.find(key); found != health.end()) telling.insert(*found);
    }
    if (telling != health_) observer_->account(health);
    health_ = std::move(telling);
    return {};
  }

  Result<void> tellConflicts(AccountProcess& process) {
    const auto answer = process.ask<qx::Array>(
        [](DSAccount& each, auto completion) { each.conflictsCompletion(std::move(completion)); },
        patience);
    if (!answer) return answer.error();
    std::set<std::string> found;
    for (const auto& value : std::get<0>(*answer).value_or(qx::Array())) {
      const auto* conflict = value.as<qx::Dictionary>();
      if (!conflict) continue;
      found.insert(pathIn(*conflict, "copyURL"));
      if (conflicts_.try_emplace(pathIn(*conflict, "copyURL"), pathIn(*conflict, "URL")).second) {
        observer_->conflict(*conflict);
      }
    }
    // The document of one that is settled is different, though nothing about it was written.
    qx::Array settled;
    std::erase_if(conflicts_, [&](const auto& conflict) {
      if (found.contains(conflict.first)) return false;
      settled.emplace_back(qx::URL::fileURL(conflict.second));
      return true;
    });
    if (settled.empty()) return {};
    const auto statuses = process.ask<qx::Array>(
        [&](DSAccount& each, auto completion) {
          each.statusOfItemsAtURLs_completion(settled, std::move(completion));
        },
        patience);
    if (!statuses) return statuses.error();
    const auto items = std::get<0>(*statuses).value_or(qx::Array());
    for (std::size_t i = 0; i < std::min(items.size(), settled.size()); ++i) {
      auto item = items[i].as<qx::Dictionary>() ? *items[i].as<qx::Dictionary>() : qx::Dictionary();
      item["URL"] = settled[i];
      if (isNews(item)) observer_->item(item);
    }
    return {};
  }

  void look(AccountProcess& process) {
    const auto answer = process.ask<qx::Array>(
        [](DSAccount& each, auto completion) { each.transfersCompletion(std::move(completion)); },
        patience);
    const auto transfers = answer ? std::get<0>(*answer).value_or(qx::Array()) : qx::Array();
    for (const auto& value : transfers) {
      const auto* transfer = value.as<qx::Dictionary>();
      if (transfer && isNews(*transfer)) observer_->transfer(*transfer);
    }
    isMoving_ = !transfers.empty();
    wantsToLook_ = observer_->look();
  }

  /// Whether the status or the transfer is different from the last one that was told of the item;
  /// an item is written in the account's database more often than that.
  bool isNews(const qx::Dictionary& telling) {
    constexpr std::size_t most = 10'000;
    if (told_.size() > most) told_.clear();
    const bool isTransfer = telling.contains("total");
    auto& last = told_[(isTransfer ? "t" : "i") + pathIn(telling, "URL")];
    if (last == telling) return false;
    last = telling;
    return true;
  }

  static constexpr std::chrono::seconds patience{30};
  static constexpr std::chrono::milliseconds lookedAgain{500};

  const Account account_;
  const std::unique_ptr<AccountObserver> observer_;
  std::int64_t last_ = 0;
  qx::Dictionary health_;
  /// The documents of conflicts, by our versions.
  std::map<std::string, std::string> conflicts_;
  std::map<std::string, qx::Dictionary> told_;
  bool isMoving_ = false;
  bool wantsToLook_ = false;
};

/// Every account there is, as they come and go. Never destroyed.
class Watch {
 public:
  using MakeObserver = std::function<std::unique_ptr<AccountObserver>(const Account&)>;
  explicit Watch(MakeObserver makeObserver) : makeObserver_(std::move(makeObserver)) {}

  void lookForAccounts() {
    const std::lock_guard lock(mutex_);
    for (const auto& account : installedAccounts()) {
      if (!followed_.insert(account.name).second) continue;
      std::thread([this, account] {
        Follower(account, makeObserver_(account)).run();
        {
          const std::lock_guard again(mutex_);
          followed_.erase(account.name);
        }
        lookForAccounts();  // it may have been added again meanwhile
      }).detach();
    }
  }

 private:
  const MakeObserver makeObserver_;
  std::mutex mutex_;
  std::set<std::string> followed_;
};

}  // namespace

int watch(const Arguments& arguments) {
  static Teller teller(arguments.json);
  static Watch watch([&arguments](const Account& account) -> std::unique_ptr<AccountObserver> {
    if (!arguments.notify) return std::make_unique<Printer>(account, teller);
    return std::make_unique<Notifier>(account, arguments.patience);
  });
  const auto changes = qx::DirectoryWatch::start(
      qx::Places::extensions(), [](const std::string& /*name*/) { watch.lookForAccounts(); });
  if (!changes) return fail(arguments, docsource::Error::file(errno, qx::Places::extensions()));
  watch.lookForAccounts();
  // A reader who goes away is an error of a pipe (poll(2)); of a file or a terminal there is none.
  pollfd reader{STDOUT_FILENO, 0, 0};
  while (::poll(&reader, 1, -1) < 0 && errno == EINTR) continue;
  ::_exit(success);
}

}  // namespace tool
