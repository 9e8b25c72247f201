// Frames against a live connection. The connection is a real one over a pair of sockets; it exports
// an object that answers at once, and has calls of its own under way, which the frames may answer.
// Whatever arrives:
//  - each call that is well-formed gets exactly one answer, in order, up to where the connection is
//    closed over something that is not;
//  - the connection is closed over the first thing that is malformed, and not before;
//  - each call of ours comes to exactly one end;
//  - another connection to the same object still answers.
//
// The first byte chooses the exported interface, ConduitScript.h tells how the rest is read.

#include <fcntl.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/ConduitScript.h"
#include "fuzz/Fuzz.h"
#include "platform/base/Errors.h"
#include "platform/conduit/QXConduitConnection.h"
#include "platform/sandbox/SandboxProtocol.h"
#include "providers/_QXDocSourceVendor.h"
#include "servicer/DSDaemon.h"
#include "tests/support/Gate.h"
#include "tests/support/RawPeer.h"

using namespace qx;
using conduit::Decoder;
using conduit::Item;
using fuzz::require;

// Every class of value as an argument, and back.
// clang-format off
#define FUZZ_ECHO(OPERATION)                                                              \
  OPERATION(a_b_c_, (qx::Dictionary, qx::Array, qx::Error), (qx::Dictionary, qx::Array, qx::Error)) \
  OPERATION(d_e_f_, (qx::SharedDescriptor, qx::UUID, qx::Bytes), (qx::SharedDescriptor, qx::UUID, qx::Bytes)) \
  OPERATION(g_h_i_, (bool, std::int64_t, double), (bool, std::int64_t, double))
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
};

/// The daemon's interface; touches nothing and answers at once.
class Harmless final : public DSDaemon {
 public:
  using Text = std::optional<std::string>;
  using Place = std::optional<URL>;

  void wakeUpCompletion(Completion<> reply) override { reply(); }
  void extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
      const Place& url, const Text& provider, const Text&,
      Completion<Error, Bytes, URL, Bytes> reply) override {
    reply(DSNotFoundError(provider), std::nullopt, url, Bytes{1});
  }
  void providePlaceholderForItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const Place& url, const Text&, const Text&, Completion<Error> reply) override {
    reply(DSNotFoundErrorURL(url));
  }
  void startProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const Place&, const Text&, const Text& consumer, Completion<Error> reply) override {
    reply(DSInvalidParameterError("consumerID", consumer));
  }
  void stopProvidingItemAtURL_fromProviderID_forConsumerID_completionHandler(
      const Place&, const Text&, const Text&, Completion<Error> reply) override {
    reply(std::nullopt);
  }
  void providersCompletionHandler(Completion<Error, Dictionary> reply) override {
    reply(std::nullopt, Dictionary{{"provider", Dictionary{{"key", "value"}}}});
  }
  void extendBookmarkForFileURL_toConsumerID_completionHandler(
      const Place& url, const Text&, Completion<std::string, Error> reply) override {
    reply(url ? Text(url->path()) : Text(), std::nullopt);
  }
  void bookmarkableStringFromDocumentURL_completion(const Place&,
                                                    Completion<std::string, Error> reply) override {
    reply(std::nullopt, std::nullopt);
  }
  void documentURLFromBookmarkableString_completion(
      const Text& text, Completion<URL, Bytes, URL, Bytes, Error> reply) override {
    reply(text ? URL::parse(*text) : Place(), Bytes(), std::nullopt, std::nullopt, std::nullopt);
  }
};

/// Calls of ours; each must end once, with a reply or an error.
class OwnCalls {
 public:
  static constexpr int count = 6;

  void make(QXConduitConnection& connection) {
    const auto ends = ends_;
    const auto one = [&ends](int call) {
      return [ends, call](auto&&...) { (*ends)[static_cast<std::size_t>(call)].fetch_add(1); };
    };
    const UUID request = UUID::random();
    requests_.push_back(connection.auxiliaryConnection(request, dsDaemonInterface()));
    connection.beginRequest(request);
    auto& ofRequest = *requests_.back();
    connection.remoteObjectProxyWithErrorHandler<QXSandbox>(one(0))->consumeExtension_completion(
        Bytes{1}, one(0));
    ofRequest.remoteObjectProxyWithErrorHandler<DSDaemon>(one(1))->providersCompletionHandler(
        one(1));
    ofRequest.remoteObjectProxyWithErrorHandler<DSDaemon>(one(2))
        ->documentURLFromBookmarkableString_completion("docsource:P/i", one(2));
    ofRequest.remoteObjectProxyWithErrorHandler<DSDaemon>(one(3))->wakeUpCompletion(one(3));

    requests_.push_back(connection.auxiliaryConnection(
        request, QXConduitInterface::interfaceWithProtocol<_QXDocSourceVendor>()));
    auto& ofVendor = *requests_.back();
    ofVendor.remoteObjectProxyWithErrorHandler<_QXDocSourceVendor>(one(4))
        ->_identifierForItemAtURL_completion(URL("file:///x"), one(4));
    ofVendor.remoteObjectProxyWithErrorHandler<_QXDocSourceVendor>(one(5))
        ->_providePlaceholderAtURL_completion(URL("file:///x"), one(5));
  }

  bool allEndedOnce() const {
    return std::all_of(ends_->begin(), ends_->end(), [](const auto& end) { return end == 1; });
  }

 private:
  std::shared_ptr<std::array<std::atomic<int>, count>> ends_ =
      std::make_shared<std::array<std::atomic<int>, count>>();
  std::vector<std::shared_ptr<QXConduitConnection>> requests_;
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
  /// not. Taken apart head by head.
  bool message(std::span<const std::uint8_t> body) {
    Decoder from(body, {});
    const auto head = from.next();
    const auto kind = from.next();
    if (!head || head->kind != Item::Kind::array || !kind || kind->kind != Item::Kind::integer) {
      return false;
    }
    const bool isCall = kind->integer == 1 && (head->count == 4 || head->count == 5);
    if (!isCall && !((kind->integer == 2 || kind->integer == 3) && head->count == 3)) return false;
    const auto id = from.next();
    if (!id || id->kind != Item::Kind::integer || id->integer < 0) return false;
    auto next = from.next();
    if (!next) return false;
    if (kind->integer == 2) return next->kind == Item::Kind::array;
    if (kind->integer == 3) return next->kind == Item::Kind::tag && next->count == 17746;
    if (next->kind != Item::Kind::string) return false;
    if (!from.peekArray() || !from.skip()) return false;
    if (head->count == 5) {
      next = from.next();
      if (!next || next->kind != Item::Kind::tag || next->count != 37) return false;
    }
    calls.push_back(id->integer);
    return true;
  }

  std::vector<std::uint8_t> stream_;
  std::size_t position_ = 0;
};

/// An exported object's connection and the far end.
struct Pair {
  explicit Pair(bool ofDaemon) : Pair(ofDaemon, test::socketPair()) {}
  Pair(bool ofDaemon, std::pair<FileDescriptor, FileDescriptor> ends)
      : connection(QXConduitConnection::overSocket(std::move(ends.first))),
        peer(std::move(ends.second)) {
    if (ofDaemon) {
      connection->setExportedInterface(dsDaemonInterface());
      connection->setExportedObject<DSDaemon>(std::make_shared<Harmless>());
    } else {
      connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<FuzzEcho>());
      connection->setExportedObject<FuzzEcho>(std::make_shared<Echo>());
    }
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
  static auto& another = *new Pair(true);
  const auto call = test::RawPeer::call(
      1, "wakeUpCompletion:", [](conduit::Encoder& message) { conduit::encodeList(message); });
  require(another.peer.sendBytes(call) && nextAnswer(another.peer) == 1,
          "another connection still answers");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool isMuted = (fuzz::muteLog(), true);
  fuzz::Input input(data, size);
  Pair pair(input.byte() % 2 == 0);
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
  require(ours.allEndedOnce(), "every call of ours ends once");
  checkAnother();
  return 0;
}
