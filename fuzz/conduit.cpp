// Frames against a live connection. The connection is a real one over a pair of sockets; it exports
// an object that answers at once, and has calls of its own under way, which the frames may answer.
// Whatever arrives:
//  - each call that is well-formed gets exactly one answer, in order, up to where the connection is
//    closed over something that is not;
//  - the connection is closed over the first thing that is malformed, and not before;
//  - each call of ours comes to exactly one end;
//  - another connection to the same object still answers.
//
// ConduitScript.h tells how the input is read.

#include <atomic>
#include <memory>

#include "fuzz/ConduitScript.h"
#include "fuzz/Fuzz.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/sandbox/SandboxProtocol.h"
#include "tests/support/Gate.h"
#include "tests/support/RawPeer.h"

using namespace qx;
using conduit::Decoder;
using fuzz::require;

// Every class of value as an argument, and back.
// clang-format off
#define FUZZ_ECHO(OPERATION)                                              \
  OPERATION(a_b_c_, (qx::Dictionary, qx::Array, qx::Error),               \
            (qx::Dictionary, qx::Array, qx::Error))                       \
  OPERATION(d_e_f_, (qx::SharedDescriptor, qx::UUID, qx::Bytes),          \
            (qx::SharedDescriptor, qx::UUID, qx::Bytes))                  \
  OPERATION(g_h_i_, (bool, std::int64_t, double), (bool, std::int64_t, double)) \
  OPERATION(j_k_, (qx::URL, std::string), (qx::URL, std::string))
// clang-format on
QX_PROTOCOL(FuzzEcho, FUZZ_ECHO)

namespace {

class Echo final : public FuzzEcho {
 public:
  void a_b_c_(const std::optional<Dictionary>& a, const std::optional<Array>& b,
              const std::optional<Error>& c, Completion<Dictionary, Array, Error> reply) override {
    reply(a, b, c);
  }
  void d_e_f_(const std::optional<SharedDescriptor>& a, const std::optional<UUID>& b,
              const std::optional<Bytes>& c,
              Completion<SharedDescriptor, UUID, Bytes> reply) override {
    reply(a, b, c);
  }
  void g_h_i_(const std::optional<bool>& a, const std::optional<std::int64_t>& b,
              const std::optional<double>& c,
              Completion<bool, std::int64_t, double> reply) override {
    reply(a, b, c);
  }
  void j_k_(const std::optional<URL>& a, const std::optional<std::string>& b,
            Completion<URL, std::string> reply) override {
    reply(a, b);
  }
};

/// Calls of ours, with a request and without; each must end once, with a reply or an error.
class OwnCalls {
 public:
  void make(QXConduitConnection& connection) {
    const auto one = [ends = ends_](std::size_t call) {
      return [ends, call](auto&&...) {
        (*ends)[call].fetch_add(1);
        (*ends)[call].notify_all();
      };
    };
    connection.remoteObjectProxyWithErrorHandler<QXSandbox>(one(0))->consumeExtension_completion(
        Bytes{1}, one(0));
    const UUID id = UUID::random();
    request_ = connection.auxiliaryConnection(id, echoInterface());
    connection.beginRequest(id);
    const auto proxy = [&](std::size_t call) {
      return request_->remoteObjectProxyWithErrorHandler<FuzzEcho>(one(call));
    };
    proxy(1)->a_b_c_(Dictionary{{"key", 1}}, std::nullopt, std::nullopt, one(1));
    proxy(2)->g_h_i_(true, 7, std::nullopt, one(2));
    proxy(3)->j_k_(URL("file:///x"), "text", one(3));
  }
  static std::shared_ptr<const QXConduitInterface> echoInterface() {
    return QXConduitInterface::interfaceWithProtocol<FuzzEcho>();
  }

  /// Answers that came before the end may still be on their way to their callers after it.
  bool allEndOnce() const {
    for (const auto& end : *ends_) end.wait(0);
    return std::all_of(ends_->begin(), ends_->end(), [](const auto& end) { return end == 1; });
  }

 private:
  using Ends = std::array<std::atomic<int>, 4>;
  std::shared_ptr<Ends> ends_ = std::make_shared<Ends>();
  std::shared_ptr<QXConduitConnection> request_;
};

/// What the other end must make of the bytes that it is sent, frame by frame.
class Expectation {
 public:
  /// The number of each call that must be answered, in order.
  std::vector<std::int64_t> calls;
  bool isClosed = false;
  /// Whether a frame speaks of descriptors. Those belong to the frame that arrives with them, which
  /// the one who sends cannot foretell; from then on it may also have been closed. The same holds
  /// once descriptors came that belong to no frame.
  bool isUncertain = false;

  void sent(std::span<const std::uint8_t> bytes, std::size_t descriptors) {
    // Too many, or in the middle of a frame, where they belong to none.
    const bool isBetweenFrames = position_ == stream_.size();
    if (descriptors > (isBetweenFrames ? conduit::maximumDescriptors : 0)) isUncertain = true;
    stream_.insert(stream_.end(), bytes.begin(), bytes.end());
    while (!isClosed && stream_.size() - position_ >= conduit::frameHeaderSize) {
      std::size_t size = 0;
      for (std::size_t i = 0; i < conduit::frameHeaderSize; ++i) {
        size = size << 8U | stream_[position_ + i];
      }
      if (size == 0 || size > conduit::maximumFrameSize) {
        isClosed = true;
        return;
      }
      if (stream_.size() - position_ - conduit::frameHeaderSize < size) return;
      frame(std::span(stream_).subspan(position_ + conduit::frameHeaderSize, size));
      position_ += conduit::frameHeaderSize + size;
    }
  }

 private:
  void frame(std::span<const std::uint8_t> body) {
    if (!conduit::isWellFormed(body, 0)) {
      if (!conduit::isWellFormed(body, conduit::maximumDescriptors)) {
        isClosed = true;
        return;
      }
      isUncertain = true;
    }
    if (!message(body)) isClosed = true;
  }

  /// Whether it has the form of a message that this end takes: begin and end of requests it does
  /// not.
  bool message(std::span<const std::uint8_t> body) {
    static const std::vector<SharedDescriptor> any(conduit::maximumDescriptors,
                                                   std::make_shared<const FileDescriptor>());
    Decoder from(body, any);
    Array parts;
    if (!conduit::decode(from, parts) || parts.size() < 3) return false;
    const auto* kind = parts[0].as<std::int64_t>();
    const auto* id = parts[1].as<std::int64_t>();
    if (!kind || !id || *id < 0) return false;
    if (*kind == 2) return parts.size() == 3 && parts[2].as<Array>();
    if (*kind == 3) return parts.size() == 3 && parts[2].as<Error>();
    const bool hasRequest = parts.size() == 5 && parts[4].as<UUID>();
    if (*kind != 1 || !parts[2].as<std::string>() || parts.size() < 4 || !parts[3].as<Array>() ||
        (parts.size() != 4 && !hasRequest)) {
      return false;
    }
    calls.push_back(*id);
    return true;
  }

  std::vector<std::uint8_t> stream_;
  std::size_t position_ = 0;
};

/// An exported object's connection and the far end.
struct Pair {
  explicit Pair(std::pair<FileDescriptor, FileDescriptor> ends = test::socketPair())
      : connection(QXConduitConnection::overSocket(std::move(ends.first))),
        peer(std::move(ends.second)) {
    connection->setExportedInterface(OwnCalls::echoInterface());
    connection->setExportedObject<FuzzEcho>(std::make_shared<Echo>());
    connection->setRemoteObjectInterface(QXConduitInterface::interfaceWithProtocol<QXSandbox>());
    connection->setInvalidationHandler([gate = ended] { gate->pass(); });
    connection->resume();
  }

  std::shared_ptr<test::Gate> ended = std::make_shared<test::Gate>();
  std::shared_ptr<QXConduitConnection> connection;
  test::RawPeer peer;
};

/// The next answer; absent when the connection is over. Calls and requests of the other end are
/// passed over.
std::optional<std::int64_t> nextAnswer(test::RawPeer& peer) {
  while (const auto body = peer.readFrame()) {
    require(conduit::isWellFormed(*body, conduit::maximumDescriptors), "answers are well-formed");
    Decoder from(*body, {});
    from.next();
    const auto kind = from.next();
    if (kind->integer == 2 || kind->integer == 3) return from.next()->integer;
  }
  return std::nullopt;
}

void send(test::RawPeer& peer, fuzz::Input& input, Expectation& expected) {
  static const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  while (!input.isAtEnd() && !expected.isClosed) {
    const std::uint8_t flags = input.byte();
    const auto bytes = input.take(input.word());
    auto part = (flags & fuzz::rawPart) != 0 ? std::vector<std::uint8_t>(bytes.begin(), bytes.end())
                                             : test::RawPeer::frame(bytes);
    const std::vector<int> descriptors(flags & fuzz::descriptorsOfPart, null);
    expected.sent(part, descriptors.size());
    if (!peer.sendBytes(part, descriptors)) {
      require(expected.isClosed || expected.isUncertain, "only what is malformed ends it");
      return;
    }
  }
}

void checkAnother() {
  static auto& another = *new Pair;
  const auto call = test::RawPeer::call(1, "j:k:", [](conduit::Encoder& message) {
    conduit::encodeList(message, std::optional<URL>(), std::optional<std::string>());
  });
  require(another.peer.sendBytes(call) && nextAnswer(another.peer) == 1,
          "another connection still answers");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool isMuted = (fuzz::muteLog(), true);
  fuzz::Input input(data, size);
  Pair pair;
  OwnCalls ours;
  ours.make(*pair.connection);

  Expectation expected;
  send(pair.peer, input, expected);
  std::size_t answered = 0;
  while (answered < expected.calls.size()) {
    const auto answer = nextAnswer(pair.peer);
    if (!answer) break;
    require(*answer == expected.calls[answered], "calls are answered once and in order");
    ++answered;
  }
  if (!expected.isUncertain) {
    require(answered == expected.calls.size(), "every call is answered");
    require(expected.isClosed || !pair.connection->isInvalid(), "only what is malformed ends it");
  }
  if (expected.isClosed) require(!nextAnswer(pair.peer), "nothing more is answered");
  pair.peer.close();
  pair.ended->wait();
  require(ours.allEndOnce(), "every call of ours ends once");
  checkAnother();
  return 0;
}
