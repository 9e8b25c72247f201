#pragma once

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace qx::test {

/// How long a test waits for what must happen before it calls it a failure.
inline constexpr std::chrono::seconds patience{20};

/// Whether a condition came true within that time: looked at again and again, for what tells nobody
/// when it changes.
template <class Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    poll(nullptr, 0, 5);
  }
  return true;
}

/// What callbacks on other threads leave for the test to wait for.
template <class Message>
class Mailbox {
 public:
  void put(Message message) {
    // Under the lock: the mailbox may go as soon as the test has seen the message.
    std::lock_guard lock(mutex_);
    messages_.push_back(std::move(message));
    changed_.notify_all();
  }

  /// Whether `condition`, given all messages so far, came true.
  template <class Condition>
  bool waitUntil(Condition condition) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return condition(messages_); });
  }

  bool waitForCount(std::size_t count) const {
    return waitUntil([count](const auto& messages) { return messages.size() >= count; });
  }

  bool waitFor(const Message& message) const {
    return waitUntil([&](const auto& messages) {
      return std::find(messages.begin(), messages.end(), message) != messages.end();
    });
  }

  std::vector<Message> all() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }

  /// Takes everything out.
  std::vector<Message> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Message> messages_;
};

}  // namespace qx::test
