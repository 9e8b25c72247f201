// One conduit socket.
//
// The socket is one source of the reactor, armed for what is wanted next: input, unless a thread is
// reading already or too many calls are unanswered; output, while the socket is full. The thread
// that reads keeps the input to itself (`reading_`), so calls are delivered one at a time and in
// order, while another thread can still flush output. Replies, and what calls leave for later, wait
// until it has armed the socket again, and hold nobody up then.
//
// Descriptors arrive somewhere within the bytes that one recvmsg() returned; they belong to the
// frame that begins within those bytes and speaks of descriptors.

#include "platform/conduit/ConduitChannel.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/base/Memory.h"
#include "platform/conduit/AfterReading.h"
#include "platform/identity/AuditToken.h"
#include "platform/log/Log.h"
#include "platform/queue/Clock.h"
#include "platform/queue/WorkQueue.h"

namespace qx::conduit {
namespace {

/// Of the connection that this thread reads.
thread_local std::vector<ConduitChannel::Delivery>* deliveriesOfThread = nullptr;

constexpr std::int64_t callMessage = 1;
constexpr std::int64_t replyMessage = 2;
constexpr std::int64_t failureMessage = 3;
constexpr std::int64_t beginRequestMessage = 4;
constexpr std::int64_t endRequestMessage = 5;

constexpr std::size_t readSize = 64U << 10U;
/// What is read at a time unless a longer frame is on its way: some twenty small calls. Then others
/// have their turn.
constexpr std::size_t turnSize = 1U << 9U;
constexpr std::size_t maximumBatches = 4;
/// What every connection may have kept without a question.
constexpr std::size_t littleToKeep = 64U << 10U;
constexpr std::size_t maximumParts = 16;
/// So many bytes of frames that wait to be sent lie together. Each small one by itself would take
/// thirty times its size.
constexpr std::size_t joinedSize = 64U << 10U;

/// A crowd of connections leaves memory behind, which is given back when it has been gone for ten
/// seconds.
void connectionEnded() {
  constexpr unsigned crowd = 100;
  static std::atomic<unsigned> ended = 0;
  static std::atomic<bool> isDue = false;
  if (++ended < crowd || isDue.exchange(true)) return;
  ended = 0;
  Clock::current().schedule(std::chrono::seconds(10), [] {
    isDue = false;
    giveFreeMemoryBack();
  });
}

std::uint32_t frameLength(const std::uint8_t* header) {
  return std::uint32_t{header[0]} << 24U | std::uint32_t{header[1]} << 16U |
         std::uint32_t{header[2]} << 8U | std::uint32_t{header[3]};
}

bool takeInteger(Decoder& decoder, std::int64_t& value) { return decode(decoder, value); }

bool takeID(Decoder& decoder, std::uint64_t& id) {
  std::int64_t value = 0;
  if (!takeInteger(decoder, value) || value < 0) return false;
  id = static_cast<std::uint64_t>(value);
  return true;
}

struct ControlBuffer {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * maximumDescriptors)> bytes;
};

/// Whether it can be an end of a connection to this process, or hold one: kept with a frame that
/// never becomes complete, it would keep that connection, and itself, for ever. What has no type is
/// an anonymous inode, such as an io_uring with files of its own.
bool mayHoldConnections(int descriptor) {
  struct stat status;
  return ::fstat(descriptor, &status) != 0 || S_ISSOCK(status.st_mode) ||
         (status.st_mode & S_IFMT) == 0;
}

/// Takes every descriptor out of a received message, so that none is leaked. Null stands for what
/// does not travel.
std::vector<SharedDescriptor> takeDescriptors(msghdr& message) {
  std::vector<SharedDescriptor> descriptors;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
      auto taken = std::make_shared<const FileDescriptor>(fd);
      descriptors.push_back(mayHoldConnections(fd) ? nullptr : std::move(taken));
    }
  }
  return descriptors;
}

Error connectionLost() {
  return conduitError(ConduitErrorCode::connectionLost,
                      "The connection was lost before the call was answered.");
}

}  // namespace

std::shared_ptr<ConduitChannel> ConduitChannel::make(FileDescriptor socket) {
  return std::make_shared<ConduitChannel>(std::move(socket));
}

ConduitChannel::ConduitChannel(FileDescriptor socket) : socket_(std::move(socket)) {}

void ConduitChannel::setDelegate(std::weak_ptr<Delegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void ConduitChannel::setAllowance(Allowance allowance) {
  std::lock_guard lock(mutex_);
  allowance_ = std::move(allowance);
}

/// Asks for leave to keep what is kept by now.
bool ConduitChannel::mayKeepLocked() {
  if (!allowance_ || closed_) return true;
  const std::size_t bytes = read_.bytes + unsent_;
  const Kept kept{bytes > littleToKeep ? bytes : 0, read_.descriptors + unsentDescriptors_};
  if (kept == kept_) return true;
  kept_ = kept;
  if (allowance_(kept)) return true;
  refuse("its user has too much kept");
  return false;
}

void ConduitChannel::start() {
  bool refused = false;
  {
    std::lock_guard lock(mutex_);
    if (closed_ || source_ != 0) return;
    // A disarmed source first: an event must not come before the source's number is known.
    source_ = Reactor::shared().add(socket_.get(), 0, shared_from_this());
    refused = source_ == 0;
    if (!refused) armLocked();
  }
  if (refused) close();
}

bool ConduitChannel::isClosed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

void ConduitChannel::close() {
  std::unordered_map<std::uint64_t, PendingCall> calls;
  std::deque<Output> output;
  std::weak_ptr<Delegate> delegate;
  Allowance allowance;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    closed_ = true;
    allowance.swap(allowance_);
    calls.swap(calls_);
    output.swap(output_);
    unsent_ = 0;
    delegate = delegate_;
    // The descriptor itself stays open until the last user of this object is gone, so that no
    // thread ever writes to a number that means something else by then.
    shutdown(socket_.get(), SHUT_RDWR);
    if (source_ != 0) Reactor::shared().remove(source_, socket_.get());
  }
  WorkQueue::global().async([calls = std::move(calls), delegate = std::move(delegate)] {
    const Error error = connectionLost();
    for (const auto& [id, call] : calls) {
      if (call.onError) call.onError(error);
    }
    if (auto told = delegate.lock()) told->channelEnded();
  });
  connectionEnded();
}

void ConduitChannel::refuse(std::string_view why) {
  DS_LOG("[NOTICE] Closing the connection to PID %d: %@.",
         peerProcess_.value_or(AuditToken::ofPeer(socket_.get()).processIdentifier()), why);
}

// Reading.

void ConduitChannel::ready(std::uint32_t events) {
  bool over = false;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    over = !flushLocked();
    const bool hungUp = (events & (EPOLLHUP | EPOLLERR)) != 0;
    // Nobody reads a paused connection, so nobody else would notice that its peer is gone.
    if ((paused_ || inputEnded_) && hungUp) over = true;
    if (inputEnded_ && unanswered_ == 0 && output_.empty()) over = true;
    if (inputEnded_) kicked_ = false;
    if (!over && (reading_ || paused_ || inputEnded_)) {
      if (!hungUp) armLocked();
      return;
    }
    kicked_ = false;
    reading_ = !over;
  }
  if (over) {
    close();
    return;
  }
  Progress progress = Progress::again;
  deliveriesOfThread = &deliveries_;
  for (int i = 0; i < 16 && progress == Progress::again; ++i) progress = readSome();
  deliveriesOfThread = nullptr;
  Delivery own;
  if (!deliveries_.empty()) {
    own = std::move(deliveries_.back());
    deliveries_.pop_back();
    leaveDeliveriesToOthers();
  }
  if (progress == Progress::over) {
    close();
  } else {
    std::lock_guard lock(mutex_);
    reading_ = false;
    if (!closed_) armLocked();
  }
  if (own) own();
}

void afterReading(std::function<void()> task) {
  if (deliveriesOfThread) {
    deliveriesOfThread->push_back(std::move(task));
  } else {
    WorkQueue::global().async(std::move(task));
  }
}

void ConduitChannel::leaveDeliveriesToOthers() {
  for (auto& delivery : deliveries_) WorkQueue::global().async(std::move(delivery));
  deliveries_.clear();
}

ConduitChannel::Progress ConduitChannel::readSome() {
  // What is left over from before comes first: whole frames wait there after a pause.
  if (input_.size() >= frameHeaderSize) {
    std::vector<std::uint8_t> bytes;
    bytes.swap(input_);
    auto handled = handleFrames(bytes);
    if (!handled) return Progress::over;
    streamPosition_ += *handled;
    dropPassedDescriptors(streamPosition_);
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(*handled));
    input_ = std::move(bytes);
    std::lock_guard lock(mutex_);
    if (paused_) return Progress::wait;
  }

  thread_local std::vector<std::uint8_t> scratch(readSize);
  std::size_t wanted = turnSize;
  if (input_.size() >= frameHeaderSize) {
    const std::size_t missing = frameHeaderSize + frameLength(input_.data()) - input_.size();
    wanted = std::clamp(missing, turnSize, readSize);
  }
  ControlBuffer control;
  iovec part{scratch.data(), wanted};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();
  const ssize_t count = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (count < 0) {
    if (errno == EINTR) return Progress::again;
    return errno == EAGAIN || errno == EWOULDBLOCK ? Progress::wait : Progress::over;
  }
  auto descriptors = takeDescriptors(message);
  if (count == 0) return waitsForAnswers() ? Progress::wait : Progress::over;
  const auto received = static_cast<std::size_t>(count);
  if ((message.msg_flags & MSG_CTRUNC) != 0) {
    refuse("too many descriptors with a frame");
    return Progress::over;
  }
  if (!descriptors.empty()) {
    const std::uint64_t begin = streamPosition_ + input_.size();
    batches_.push_back({begin, begin + received, std::move(descriptors)});
    if (batches_.size() > maximumBatches) {
      refuse("descriptors that belong to no frame");
      return Progress::over;
    }
  }

  std::span<const std::uint8_t> bytes(scratch.data(), received);
  std::vector<std::uint8_t> joined;
  if (!input_.empty()) {
    joined.swap(input_);
    joined.insert(joined.end(), bytes.begin(), bytes.end());
    bytes = joined;
  }
  auto handled = handleFrames(bytes);
  if (!handled) return Progress::over;
  streamPosition_ += *handled;
  dropPassedDescriptors(streamPosition_);
  const auto rest = bytes.subspan(*handled);
  if (joined.empty()) {
    input_.assign(rest.begin(), rest.end());
  } else if (rest.empty()) {
    input_ = {};
  } else {
    joined.erase(joined.begin(), joined.begin() + static_cast<std::ptrdiff_t>(*handled));
    input_ = std::move(joined);
  }
  {
    std::lock_guard lock(mutex_);
    read_ = {input_.size(), 0};
    for (const auto& batch : batches_) read_.descriptors += batch.descriptors.size();
    if (!mayKeepLocked()) return Progress::over;
    if (paused_) return Progress::wait;
  }
  // The reactor tells when there is more. A long frame is gone on with.
  return wanted > turnSize && received == wanted && !input_.empty() ? Progress::again
                                                                    : Progress::wait;
}

/// At the end of the input: whether the peer only stopped sending (shutdown(2)) and waits for
/// answers. Whoever is called by us cannot answer any more, and so is gone.
bool ConduitChannel::waitsForAnswers() {
  pollfd state{socket_.get(), 0, 0};
  const bool isThere = ::poll(&state, 1, 0) == 0;
  std::lock_guard lock(mutex_);
  inputEnded_ = isThere && calls_.empty() && (unanswered_ > 0 || !output_.empty());
  // What was waited for may end while this thread still reads: one more look.
  kicked_ = inputEnded_;
  return inputEnded_;
}

std::optional<std::size_t> ConduitChannel::handleFrames(std::span<const std::uint8_t> bytes) {
  std::size_t position = 0;
  while (bytes.size() - position >= frameHeaderSize) {
    const std::size_t length = frameLength(bytes.data() + position);
    if (length == 0 || length > maximumFrameSize) {
      refuse("a frame of a length that is not allowed");
      return std::nullopt;
    }
    if (bytes.size() - position - frameHeaderSize < length) break;
    if (!mayTakeCall()) break;
    if (!handleFrame(bytes.subspan(position + frameHeaderSize, length),
                     streamPosition_ + position)) {
      return std::nullopt;
    }
    position += frameHeaderSize + length;
    if (isClosed()) return std::nullopt;
  }
  return position;
}

/// Closes the descriptors that came before this place in the stream and that no frame wanted.
void ConduitChannel::dropPassedDescriptors(std::uint64_t streamPosition) {
  std::erase_if(batches_, [streamPosition](const DescriptorBatch& batch) {
    return batch.end <= streamPosition;
  });
}

bool ConduitChannel::handleFrame(std::span<const std::uint8_t> body, std::uint64_t streamPosition) {
  dropPassedDescriptors(streamPosition);
  auto batch = batches_.begin();
  while (batch != batches_.end() && batch->begin > streamPosition) ++batch;
  std::span<const SharedDescriptor> descriptors;
  if (batch != batches_.end()) descriptors = batch->descriptors;

  bool spokeOfDescriptors = false;
  if (!isWellFormed(body, descriptors.size(), &spokeOfDescriptors)) {
    refuse("a malformed frame");
    return false;
  }
  std::vector<SharedDescriptor> taken;
  if (spokeOfDescriptors) {
    taken = std::move(batch->descriptors);
    batches_.erase(batch);
  }
  if (!handleMessage(body, taken)) {
    refuse("a message of a form that there is not");
    return false;
  }
  return true;
}

bool ConduitChannel::handleMessage(std::span<const std::uint8_t> body,
                                   std::span<const SharedDescriptor> descriptors) {
  Decoder decoder(body, descriptors);
  auto head = decoder.next();
  std::int64_t kind = 0;
  if (!head || head->kind != Item::Kind::array || !takeInteger(decoder, kind)) return false;
  switch (kind) {
    case callMessage:
      return (head->count == 4 || head->count == 5) && handleCall(decoder, head->count == 5);
    case replyMessage:
    case failureMessage:
      return head->count == 3 && handleReply(decoder, kind == failureMessage);
    case beginRequestMessage:
    case endRequestMessage: {
      UUID request;
      if (head->count != 2 || !decode(decoder, request)) return false;
      std::shared_ptr<Delegate> delegate;
      {
        std::lock_guard lock(mutex_);
        delegate = delegate_.lock();
      }
      return delegate && delegate->receivedRequest(kind == beginRequestMessage, request);
    }
    default:
      return false;
  }
}

bool ConduitChannel::handleCall(Decoder& decoder, bool hasRequest) {
  const std::size_t size = decoder.remaining();
  std::uint64_t id = 0;
  if (!takeID(decoder, id)) return false;
  auto operation = decoder.next();
  if (!operation || operation->kind != Item::Kind::string) return false;
  Decoder arguments = decoder;
  if (!decoder.peekArray() || !decoder.skip()) return false;
  std::optional<UUID> request;
  if (hasRequest && !decode(decoder, request.emplace())) return false;

  std::shared_ptr<Delegate> delegate;
  {
    std::lock_guard lock(mutex_);
    delegate = delegate_.lock();
    ++unanswered_;
    unansweredSize_ += size;
  }
  auto call = std::make_shared<IncomingCall>(weak_from_this(), id, size);
  // The call may wait for a reply that came before it.
  leaveDeliveriesToOthers();
  if (delegate) delegate->receivedCall(std::move(call), operation->content, arguments, request);
  return true;
}

bool ConduitChannel::handleReply(Decoder& decoder, bool isFailure) {
  std::uint64_t id = 0;
  if (!takeID(decoder, id)) return false;
  if (isFailure ? !decoder.peekError() : !decoder.peekArray()) return false;

  PendingCall call;
  {
    std::lock_guard lock(mutex_);
    auto found = calls_.find(id);
    if (found == calls_.end()) return true;
    call = std::move(found->second);
    calls_.erase(found);
  }
  // Nothing is built for an answer that nobody waits for.
  std::optional<Error> failure;
  Delivery delivery;
  if (!isFailure) delivery = call.onReply(decoder);
  if (isFailure ? !decode(decoder, failure) : !delivery) {
    failure = conduitError(ConduitErrorCode::replyDoesNotMatch,
                           "The reply is not of the declared types.");
  }
  if (failure) {
    if (!call.onError) return true;
    delivery = [onError = std::move(call.onError), error = *std::move(failure)] { onError(error); };
  }
  deliveries_.push_back(std::move(delivery));
  return true;
}

/// Past the limits of unanswered calls nothing more is taken from the connection.
bool ConduitChannel::mayTakeCall() {
  std::lock_guard lock(mutex_);
  paused_ = unanswered_ >= maximumUnanswered || unansweredSize_ >= maximumUnansweredSize;
  return !paused_;
}

void ConduitChannel::callEnded(std::size_t size) {
  std::lock_guard lock(mutex_);
  --unanswered_;
  unansweredSize_ -= size;
  if (closed_ || (!paused_ && !inputEnded_)) return;
  paused_ = false;
  // Frames may wait in our own buffer, of which the kernel knows nothing, or this was the last
  // answer that the peer waited for: being writable wakes the reactor at once.
  kicked_ = true;
  armLocked();
}

// Writing.

void ConduitChannel::send(Encoder message, bool withTheNext) {
  bool over = false;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    const bool mayWrite = !full_ && !withTheNext;
    Output output{message.takeFrame(), 0, message.takeDescriptors()};
    unsent_ += output.frame.size();
    unsentDescriptors_ += output.descriptors.size();
    if (output.descriptors.empty() && !output_.empty() &&
        output_.back().frame.size() + output.frame.size() <= joinedSize) {
      auto& frames = output_.back().frame;
      frames.insert(frames.end(), output.frame.begin(), output.frame.end());
    } else {
      output_.push_back(std::move(output));
    }
    if (mayWrite) over = !flushLocked();
    if (!over && unsent_ > maximumUnsent) {
      over = true;
      refuse("it does not read what it is sent");
    }
    if (!over) over = !mayKeepLocked();
    if (!over && mayWrite && full_) armLocked();
  }
  if (over) close();
}

/// Writes what the socket takes, several frames at a time; false when the peer is gone.
bool ConduitChannel::flushLocked() {
  while (!output_.empty()) {
    std::array<iovec, maximumParts> parts;
    std::size_t partCount = 0;
    for (Output& next : output_) {
      // Descriptors travel with the first byte of their frame.
      const bool wantsItsOwnMessage = partCount != 0 && !next.descriptors.empty();
      if (partCount == parts.size() || wantsItsOwnMessage) break;
      parts[partCount++] = {next.frame.data() + next.sent, next.frame.size() - next.sent};
    }
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = partCount;
    ControlBuffer control;
    auto& descriptors = output_.front().descriptors;
    if (!descriptors.empty()) {
      std::array<int, maximumDescriptors> numbers;
      std::size_t size = sizeof(int) * descriptors.size();
      for (std::size_t i = 0; i < descriptors.size(); ++i) numbers[i] = descriptors[i]->get();
      message.msg_control = control.bytes.data();
      message.msg_controllen = CMSG_SPACE(size);
      cmsghdr* header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(size);
      std::memcpy(CMSG_DATA(header), numbers.data(), size);
    }
    const ssize_t count = sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) {
      if (errno == EINTR) continue;
      full_ = errno == EAGAIN || errno == EWOULDBLOCK;
      return full_;
    }
    unsentDescriptors_ -= descriptors.size();
    descriptors.clear();
    unsent_ -= static_cast<std::size_t>(count);
    for (auto left = static_cast<std::size_t>(count); left > 0;) {
      Output& next = output_.front();
      const std::size_t taken = std::min(left, next.frame.size() - next.sent);
      next.sent += taken;
      left -= taken;
      if (next.sent == next.frame.size()) output_.pop_front();
    }
  }
  full_ = false;
  return true;
}

void ConduitChannel::armLocked() {
  if (source_ == 0) return;
  std::uint32_t events = 0;
  if (!reading_ && !paused_ && !inputEnded_) events |= EPOLLIN;
  if (full_ || (kicked_ && !reading_)) events |= EPOLLOUT;
  // A connection that is not read is armed all the same: its peer's end is always reported.
  if (events != 0 || ((paused_ || inputEnded_) && !reading_))
    Reactor::shared().arm(source_, socket_.get(), events);
}

// Calls of ours.

std::uint64_t ConduitChannel::nextCallID() {
  std::lock_guard lock(mutex_);
  return ++lastCallID_;
}

Encoder ConduitChannel::beginCall(std::uint64_t id, std::string_view operation, bool hasRequest) {
  Encoder message;
  message.array(hasRequest ? 5 : 4);
  message.integer(callMessage);
  message.integer(static_cast<std::int64_t>(id));
  message.string(operation);
  return message;
}

void ConduitChannel::sendCall(std::uint64_t id, Encoder message, const std::optional<UUID>& request,
                              ReplyReader onReply, ErrorHandler onError) {
  if (request) encode(message, *request);
  std::optional<Error> refusal;
  if (!message.possible()) {
    refusal = conduitError(ConduitErrorCode::argumentsDoNotMatch,
                           "An argument is of a class that cannot travel.");
  } else if (!message.fits()) {
    refusal = conduitError(ConduitErrorCode::tooLarge, "The call does not fit in a frame.");
  } else {
    std::lock_guard lock(mutex_);
    if (closed_ || inputEnded_ || (request && !openRequests_.contains(*request))) {
      refusal = connectionLost();
    } else {
      calls_.emplace(id, PendingCall{std::move(onReply), onError, request});
    }
  }
  if (!refusal) {
    send(std::move(message));
  } else if (onError) {
    WorkQueue::global().async([onError = std::move(onError), error = *refusal] { onError(error); });
  }
}

void ConduitChannel::beginRequest(const UUID& request) {
  {
    std::lock_guard lock(mutex_);
    openRequests_.insert(request);
  }
  send(requestMessage(beginRequestMessage, request), true);
}

void ConduitChannel::endRequest(const UUID& request) {
  {
    std::lock_guard lock(mutex_);
    openRequests_.erase(request);
  }
  // Nobody waits for it: it need not wake the peer by itself.
  send(requestMessage(endRequestMessage, request), true);
  {
    std::lock_guard lock(mutex_);
    if (closed_ || std::exchange(isPutOff_, true)) return;
  }
  Reactor::shared().soon(shared_from_this());
}

void ConduitChannel::late() {
  bool over = false;
  {
    std::lock_guard lock(mutex_);
    isPutOff_ = false;
    if (closed_ || full_) return;
    over = !flushLocked();
    if (full_) armLocked();
  }
  if (over) close();
}

Encoder ConduitChannel::requestMessage(std::int64_t kind, const UUID& request) {
  Encoder message;
  message.array(2);
  message.integer(kind);
  encode(message, request);
  return message;
}

void ConduitChannel::failCallsOfRequest(const UUID& request, const Error& error) {
  std::vector<ErrorHandler> handlers;
  {
    std::lock_guard lock(mutex_);
    openRequests_.erase(request);
    for (auto call = calls_.begin(); call != calls_.end();) {
      if (call->second.request == request) {
        handlers.push_back(std::move(call->second.onError));
        call = calls_.erase(call);
      } else {
        ++call;
      }
    }
  }
  if (handlers.empty()) return;
  WorkQueue::global().async([handlers = std::move(handlers), error] {
    for (const auto& handler : handlers) {
      if (handler) handler(error);
    }
  });
}

// Calls of the peer.

IncomingCall::~IncomingCall() {
  if (auto channel = channel_.lock()) channel->callEnded(size_);
}

Encoder IncomingCall::beginReply() const {
  Encoder message;
  message.array(3);
  message.integer(replyMessage);
  message.integer(static_cast<std::int64_t>(id_));
  return message;
}

void IncomingCall::sendReply(Encoder message) {
  if (!message.possible()) {
    fail(conduitError(ConduitErrorCode::replyDoesNotMatch,
                      "The reply holds a value of a class that cannot travel."));
  } else if (!message.fits()) {
    fail(conduitError(ConduitErrorCode::tooLarge, "The reply does not fit in a frame."));
  } else if (auto channel = channel_.lock()) {
    channel->send(std::move(message));
  }
}

void IncomingCall::fail(const Error& error) {
  Encoder message;
  message.array(3);
  message.integer(failureMessage);
  message.integer(static_cast<std::int64_t>(id_));
  encode(message, error);
  if (auto channel = channel_.lock()) channel->send(std::move(message));
}

}  // namespace qx::conduit
