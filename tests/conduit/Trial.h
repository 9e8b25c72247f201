#pragma once

#include <sys/resource.h>

#include <functional>
#include <memory>

#include "platform/conduit/QXConduitConnection.h"
#include "platform/queue/WorkQueue.h"
#include "tests/support/Gate.h"
#include "tests/support/RawPeer.h"

// clang-format off
#define QX_TRIAL(OPERATION)                                                             \
  OPERATION(echo_completion, (std::string), (std::string))                              \
  OPERATION(hold_completion, (std::int64_t), (std::int64_t))                            \
  OPERATION(keep_completion, (std::string), (std::int64_t))                             \
  OPERATION(blockCompletion, (), ())                                                    \
  OPERATION(answerLaterCompletion, (), ())                                              \
  OPERATION(take_and_completion, (qx::SharedDescriptor, qx::SharedDescriptor), (std::int64_t)) \
  OPERATION(listCompletion, (), (qx::Dictionary, qx::Error))
// clang-format on
QX_PROTOCOL(Trial, QX_TRIAL)

namespace qx::test {

/// An object to export. What it did can be waited for.
class TrialObject final : public Trial {
 public:
  void echo_completion(const std::optional<std::string>& text,
                       Completion<std::string> completion) override {
    completion(text);
    completion("a second answer");
    echoed.put(text.value_or("(absent)").substr(0, 32));
  }
  void hold_completion(const std::optional<std::int64_t>& number,
                       Completion<std::int64_t> completion) override {
    hold(number.value_or(-1), std::move(completion));
  }
  void keep_completion(const std::optional<std::string>& text,
                       Completion<std::int64_t> completion) override {
    hold(text ? static_cast<std::int64_t>(text->size()) : -1, std::move(completion));
  }
  void blockCompletion(Completion<> completion) override {
    entered.pass();
    unblock.wait();
    completion();
  }
  void answerLaterCompletion(Completion<> completion) override {
    WorkQueue::global().async([completion = std::move(completion), answered = answeredLater] {
      completion();
      answered->pass();
    });
    if (beforeItReturns) beforeItReturns();
  }
  void take_and_completion(const std::optional<SharedDescriptor>& first,
                           const std::optional<SharedDescriptor>& second,
                           Completion<std::int64_t> completion) override {
    completion((first ? 1 : 0) + (second ? 2 : 0));
    if (keepDescriptors) descriptors.put({first.value_or(nullptr), second.value_or(nullptr)});
  }
  void listCompletion(Completion<Dictionary, Error> completion) override {
    completion(list, std::nullopt);
    listed.pass();
  }

  std::vector<Completion<std::int64_t>> takeHeld() {
    std::lock_guard lock(mutex_);
    return std::exchange(held_, {});
  }

  Mailbox<std::string> echoed;
  Mailbox<std::int64_t> numbers;
  Gate entered;
  Gate unblock;
  const std::shared_ptr<Gate> answeredLater = std::make_shared<Gate>();
  std::function<void()> beforeItReturns;
  bool keepDescriptors = false;
  Mailbox<std::pair<SharedDescriptor, SharedDescriptor>> descriptors;
  Dictionary list;
  Gate listed;

 private:
  void hold(std::int64_t number, Completion<std::int64_t> completion) {
    {
      std::lock_guard lock(mutex_);
      held_.push_back(std::move(completion));
    }
    numbers.put(number);
  }

  std::mutex mutex_;
  std::vector<Completion<std::int64_t>> held_;
};

/// A connection that exports a TrialObject, and the raw socket at its other end.
struct Served {
  static Served make(bool resumed = true) {
    auto [near, far] = socketPair();
    Served served{QXConduitConnection::overSocket(std::move(near)), std::make_shared<TrialObject>(),
                  RawPeer(std::move(far)), std::make_shared<Gate>()};
    auto interface = QXConduitInterface::interfaceWithProtocol<Trial>();
    served.connection->setExportedInterface(interface);
    served.connection->setExportedObject<Trial>(served.object);
    served.connection->setRemoteObjectInterface(interface);
    served.connection->setInvalidationHandler([ended = served.ended] { ended->pass(); });
    if (resumed) served.connection->resume();
    return served;
  }

  std::shared_ptr<Trial> proxy(std::shared_ptr<Mailbox<Error>> errors) const {
    return connection->remoteObjectProxyWithErrorHandler<Trial>(
        [errors](const Error& error) { errors->put(error); });
  }

  std::shared_ptr<QXConduitConnection> connection;
  std::shared_ptr<TrialObject> object;
  RawPeer peer;
  std::shared_ptr<Gate> ended;
};

/// Two connections of which one calls the other's object; neither is resumed.
struct Joined {
  explicit Joined(std::pair<FileDescriptor, FileDescriptor> ends = socketPair())
      : callee(QXConduitConnection::overSocket(std::move(ends.first))),
        caller(QXConduitConnection::overSocket(std::move(ends.second))) {
    callee->setExportedInterface(QXConduitInterface::interfaceWithProtocol<Trial>());
    callee->setExportedObject<Trial>(object);
    caller->setRemoteObjectInterface(QXConduitInterface::interfaceWithProtocol<Trial>());
  }
  std::shared_ptr<Trial> proxy() const {
    return caller->remoteObjectProxyWithErrorHandler<Trial>(
        [errors = errors](const Error& error) { errors->put(error); });
  }

  const std::shared_ptr<TrialObject> object = std::make_shared<TrialObject>();
  const std::shared_ptr<QXConduitConnection> callee, caller;
  const std::shared_ptr<Mailbox<Error>> errors = std::make_shared<Mailbox<Error>>();
};

inline std::vector<std::uint8_t> echoCall(std::int64_t id, const std::string& text) {
  return RawPeer::call(id, "echo:completion:", [&](conduit::Encoder& message) {
    conduit::encodeList(message, std::optional(text));
  });
}
/// Of an operation without arguments.
inline std::vector<std::uint8_t> plainCall(std::int64_t id, std::string_view operation) {
  return RawPeer::call(id, operation, [](conduit::Encoder& message) { message.array(0); });
}
inline std::vector<std::uint8_t> holdCall(std::int64_t id) {
  return RawPeer::call(id, "hold:completion:", [&](conduit::Encoder& message) {
    conduit::encodeList(message, std::optional(id));
  });
}

/// Whether the connection still answers.
inline bool echoes(RawPeer& peer, const std::string& text = "hello") {
  if (!peer.sendBytes(echoCall(77, text))) return false;
  auto reply = peer.readMessage();
  return reply && reply->kind == 2 && reply->id == 77 && reply->first == Value(text);
}

/// The most that this process has taken in memory so far, in MiB.
inline long peakMemory() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

}  // namespace qx::test
