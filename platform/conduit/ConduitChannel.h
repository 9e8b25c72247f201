#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/base/Error.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/UUID.h"
#include "platform/conduit/Codec.h"
#include "platform/queue/Reactor.h"

namespace qx::conduit {

/// A call that the peer has made and nobody has answered yet. When it is dropped unanswered, its
/// place among the connection's unanswered calls becomes free, and the peer never hears of it.
class IncomingCall;

/// One socket that speaks the conduit protocol: frames, messages, the calls in flight in both
/// directions, and every limit of the protocol. QXConduitConnection gives it meaning.
///
/// The reactor reads. Calls are delivered to the delegate one at a time, in order, on the thread
/// that read them. Replies to our calls are delivered in parallel and in any order, after others
/// can read the connection again: a callback may wait for whatever it wants without holding up
/// another reply. The thread that read delivers one of them, and other threads deliver the rest. A
/// sender writes at once when the socket takes it; otherwise the reactor continues. Everything may
/// be called from any thread, also from within a delivery.
class ConduitChannel final : public ReactorHandler,
                             public std::enable_shared_from_this<ConduitChannel> {
 public:
  /// Told of what arrives. Held weakly.
  class Delegate {
   public:
    virtual ~Delegate() = default;
    /// `arguments` stands at the array of arguments and lives as long as the call.
    virtual void receivedCall(std::shared_ptr<IncomingCall> call, std::string_view operation,
                              Decoder& arguments, const std::optional<UUID>& request) = 0;
    /// A request begins or ends. Returns false when this side knows no requests, which ends the
    /// channel.
    virtual bool receivedRequest(bool begins, const UUID& request) = 0;
    /// The channel has ended. Called once, after the error handlers of the calls in flight.
    virtual void channelEnded() = 0;
  };

  using Delivery = std::function<void()>;
  /// Takes the reply's arguments, once, and returns a function that hands them over; empty when
  /// they are not of the declared types.
  using ReplyReader = std::function<Delivery(Decoder&)>;
  using ErrorHandler = std::function<void(const Error&)>;

  static constexpr std::size_t maximumUnanswered = 1024;
  /// How much the unanswered calls may hold together, by the size of their messages.
  static constexpr std::size_t maximumUnansweredSize = 64U << 20U;
  static constexpr std::size_t maximumUnsent = 64U << 20U;

  /// What the peer makes the channel keep: frames that are incomplete, and frames that it does not
  /// take.
  struct Kept {
    std::size_t bytes = 0;  // 0 for a little, which every connection may
    std::size_t descriptors = 0;
    friend bool operator==(const Kept&, const Kept&) = default;
  };
  /// Asked each time that changes; false ends the channel. It must not call the channel.
  using Allowance = std::function<bool(const Kept&)>;

  /// Takes a connected AF_UNIX stream socket. The channel is silent until start().
  static std::shared_ptr<ConduitChannel> make(FileDescriptor socket);
  explicit ConduitChannel(FileDescriptor socket);

  void setDelegate(std::weak_ptr<Delegate> delegate);
  /// Call this before start(). It names the process for the log, where the kernel would name the
  /// one that made the socket pair.
  void setPeerProcess(pid_t process) { peerProcess_ = process; }
  /// Call this before start(). Without an allowance a peer may have the channel keep as much as the
  /// limits above permit.
  void setAllowance(Allowance allowance);
  void start();

  /// Ends the channel: the error handler of each call in flight gets "connection lost", on the
  /// global queue, and then the delegate is told. Only the first call does anything.
  void close();
  bool isClosed() const;

  /// Makes an encoder that has begun the message of a call. The caller appends the array of
  /// arguments and hands it to sendCall().
  std::uint64_t nextCallID();
  static Encoder beginCall(std::uint64_t id, std::string_view operation, bool hasRequest);
  /// Appends the request, sends, and waits for the reply. `onError` is called at most once, from
  /// the global queue or the reactor, never from within this call.
  void sendCall(std::uint64_t id, Encoder message, const std::optional<UUID>& request,
                ReplyReader onReply, ErrorHandler onError);

  /// Only a request that was begun and not ended takes calls. The peer learns of the beginning
  /// together with what is sent next; of the end it learns likewise, or a moment later.
  void beginRequest(const UUID& request);
  void endRequest(const UUID& request);
  /// Fails the calls in flight that name the request, and later ones.
  void failCallsOfRequest(const UUID& request, const Error& error);

  int socket() const { return socket_.get(); }

  // ReactorHandler
  void ready(std::uint32_t events) override;
  void late() override;

 private:
  friend class IncomingCall;

  struct PendingCall {
    ReplyReader onReply;
    ErrorHandler onError;
    std::optional<UUID> request;
  };
  struct Output {
    std::vector<std::uint8_t> frame;
    std::size_t sent = 0;
    std::vector<SharedDescriptor> descriptors;
  };
  /// Descriptors that came with bytes [begin, end) of the stream.
  struct DescriptorBatch {
    std::uint64_t begin, end;
    std::vector<SharedDescriptor> descriptors;
  };
  enum class Progress { again, wait, over };

  Progress readSome();
  bool waitsForAnswers();
  bool mayKeepLocked();
  /// Handles the complete frames in the bytes and returns how many bytes they were; absent when the
  /// channel has ended.
  std::optional<std::size_t> handleFrames(std::span<const std::uint8_t> bytes);
  void leaveDeliveriesToOthers();
  void dropPassedDescriptors(std::uint64_t streamPosition);
  bool handleFrame(std::span<const std::uint8_t> body, std::uint64_t streamPosition);
  bool handleMessage(std::span<const std::uint8_t> body,
                     std::span<const SharedDescriptor> descriptors);
  bool handleCall(Decoder& decoder, bool hasRequest);
  bool handleReply(Decoder& decoder, bool isFailure);
  bool mayTakeCall();
  void callEnded(std::size_t size);
  void refuse(std::string_view why);

  static Encoder requestMessage(std::int64_t kind, const UUID& request);
  void send(Encoder message, bool withTheNext = false);
  bool flushLocked();
  void armLocked();

  const FileDescriptor socket_;
  std::optional<pid_t> peerProcess_;
  mutable std::mutex mutex_;
  // Guarded by the mutex.
  std::weak_ptr<Delegate> delegate_;
  Reactor::SourceID source_ = 0;
  bool closed_ = false;
  bool reading_ = false;
  bool paused_ = false;
  bool kicked_ = false;
  bool inputEnded_ = false;  // the peer sends nothing any more, and reads
  std::size_t unanswered_ = 0;
  std::size_t unansweredSize_ = 0;
  std::uint64_t lastCallID_ = 0;
  std::unordered_map<std::uint64_t, PendingCall> calls_;
  std::set<UUID> openRequests_;
  std::deque<Output> output_;
  std::size_t unsent_ = 0;
  std::size_t unsentDescriptors_ = 0;
  Kept read_;  // that is not handled
  Kept kept_;
  Allowance allowance_;
  bool full_ = false;      // the socket takes nothing now
  bool isPutOff_ = false;  // something unsent waits for late()
  // Used by the thread that reads.
  std::vector<std::uint8_t> input_;
  std::uint64_t streamPosition_ = 0;  // of the first byte in input_
  std::vector<DescriptorBatch> batches_;
  std::vector<Delivery> deliveries_;
};

class IncomingCall {
 public:
  IncomingCall(std::weak_ptr<ConduitChannel> channel, std::uint64_t id, std::size_t size)
      : channel_(std::move(channel)), id_(id), size_(size) {}
  ~IncomingCall();
  IncomingCall(const IncomingCall&) = delete;
  IncomingCall& operator=(const IncomingCall&) = delete;

  /// Makes an encoder that has begun the reply. The caller appends the array of reply arguments.
  Encoder beginReply() const;
  void sendReply(Encoder message);
  void fail(const Error& error);

 private:
  std::weak_ptr<ConduitChannel> channel_;
  std::uint64_t id_;
  std::size_t size_;  // of its message
};

}  // namespace qx::conduit
