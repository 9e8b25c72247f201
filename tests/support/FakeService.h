#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <functional>
#include <list>
#include <thread>

#include "platform/conduit/ServiceSocket.h"
#include "tests/support/Wire.h"

namespace qx::test {

/// A service that a test plays, at its socket from the construction to the destruction.
class FakeService {
 public:
  /// The values of the reply to a call; absent: the call stays open.
  using Meet = std::function<std::optional<Array>(const std::string& operation, const Array& with)>;

  FakeService(std::string name, Meet meet) : name_(std::move(name)), meet_(std::move(meet)) {
    auto listening = listenOnServiceSocket(name_);
    EXPECT_TRUE(listening);
    if (listening) socket_ = std::move(listening->socket);
    accepting_ = std::thread([this] { accept(); });
  }
  ~FakeService() {
    removeServiceSocket(name_);
    eventfd_write(stop_.get(), 1);
    accepting_.join();
    for (auto& connection : connections_) shutdown(connection.wire.socket(), SHUT_RDWR);
    for (auto& connection : connections_) connection.thread.join();
  }
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

  /// Replies to all calls that were left open.
  void answerLate() {
    const std::lock_guard lock(mutex_);
    for (const auto& [wire, id] : open_) wire->send({2, id, Array()});
  }

 private:
  struct Connection {
    explicit Connection(FileDescriptor socket) : wire(std::move(socket)) {}
    Wire wire;
    std::thread thread;
  };

  void accept() {
    for (;;) {
      std::array<pollfd, 2> entries{{{socket_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
      poll(entries.data(), entries.size(), -1);
      if (entries[1].revents != 0) return;
      FileDescriptor socket(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!socket) continue;
      auto& connection = connections_.emplace_back(std::move(socket));
      connection.wire.waitForever();
      connection.thread = std::thread([this, &connection] { serve(connection.wire); });
    }
  }
  void serve(Wire& wire) {
    while (const auto call = wire.receive()) {
      const auto id = *(*call)[1].as<std::int64_t>();
      const auto reply = meet_(*(*call)[2].as<std::string>(), *(*call)[3].as<Array>());
      if (reply) wire.send({2, id, *reply});
      const std::lock_guard lock(mutex_);
      if (!reply) open_.emplace_back(&wire, id);
    }
  }

  const std::string name_;
  const Meet meet_;
  FileDescriptor socket_;
  const FileDescriptor stop_{eventfd(0, EFD_CLOEXEC)};
  std::thread accepting_;
  std::list<Connection> connections_;  // of the accepting thread until it has ended
  std::mutex mutex_;
  std::vector<std::pair<Wire*, std::int64_t>> open_;
};

}  // namespace qx::test
