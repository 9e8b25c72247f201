#include "tests/support/Wire.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/conduit/Codec.h"
#include "tests/support/Mailbox.h"

namespace qx::test {

Wire::Wire(FileDescriptor socket) : socket_(std::move(socket)) {
  fcntl(socket_.get(), F_SETFL, 0);
  timeval limit{patience.count(), 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

void Wire::waitForever() {
  const timeval none{};
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
}

void Wire::finish() { shutdown(socket_.get(), SHUT_WR); }

bool Wire::send(const Array& message) {
  conduit::Encoder encoder;
  conduit::encode(encoder, message);
  return sendBytes(encoder.takeFrame());
}

bool Wire::sendBytes(std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

bool Wire::readWhole(std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    iovec part{bytes.data(), bytes.size()};
    std::array<char, CMSG_SPACE(sizeof(int) * conduit::maximumDescriptors)> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
    if (count <= 0) return false;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header;
         header = CMSG_NXTHDR(&message, header)) {
      if (header->cmsg_type != SCM_RIGHTS) continue;
      for (std::size_t at = CMSG_LEN(0); at < header->cmsg_len; at += sizeof(int)) {
        int descriptor = -1;
        std::memcpy(&descriptor, reinterpret_cast<char*>(header) + at, sizeof descriptor);
        descriptors_.push_back(std::make_shared<const FileDescriptor>(descriptor));
      }
    }
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

std::optional<Array> Wire::receive() {
  descriptors_.clear();
  std::array<std::uint8_t, conduit::frameHeaderSize> header{};
  if (!readWhole(header)) return std::nullopt;
  std::size_t size = 0;
  for (const std::uint8_t byte : header) size = size << 8U | byte;
  if (size > conduit::maximumFrameSize) return std::nullopt;
  std::vector<std::uint8_t> body(size);
  if (!readWhole(body) || !conduit::isWellFormed(body, descriptors_.size())) return std::nullopt;
  conduit::Decoder decoder(body, descriptors_);
  Array message;
  if (!conduit::decode(decoder, message)) return std::nullopt;
  return message;
}

bool Wire::isClosedByPeer() {
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t count = recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (count == 0) return true;
    if (count < 0) return errno == ECONNRESET;
  }
}

bool Wire::hasInput() const {
  pollfd entry{socket_.get(), POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

std::optional<Error> Wire::Answer::error() const {
  if (failure) return failure;
  for (const Value& value : values) {
    if (const auto* found = value.as<Error>()) return *found;
  }
  return std::nullopt;
}

std::string Wire::Answer::outcome() const {
  if (kind == Kind::lost) return "lost";
  std::string text = kind == Kind::failure ? "failure " : "";
  auto found = error();
  if (!found) return "success";
  std::string end;
  for (;;) {
    text += found->domain() + " " + std::to_string(found->code());
    found = found->underlyingError();
    if (!found) return text + end;
    text += " (";
    end += ")";
  }
}

std::int64_t Wire::begin(std::string_view operation, Array arguments) {
  // One that cannot be sent shows as a lost connection at its answer.
  send({1, ++last_, operation, std::move(arguments)});
  return last_;
}

Wire::Answer Wire::answer(std::int64_t id) {
  for (;;) {
    if (auto known = early_.extract(id)) return std::move(known.mapped());
    auto message = receive();
    if (!message) return {};
    const auto* kind = message->empty() ? nullptr : message->front().as<std::int64_t>();
    const auto* of = message->size() == 3 ? (*message)[1].as<std::int64_t>() : nullptr;
    if (!kind || !of) continue;
    Answer answer;
    if (auto* values = message->back().as<Array>(); *kind == 2 && values) {
      answer.kind = Answer::Kind::reply;
      answer.values = std::move(*values);
    } else if (auto* error = message->back().as<Error>(); *kind == 3 && error) {
      answer.kind = Answer::Kind::failure;
      answer.failure = *error;
    } else {
      continue;
    }
    early_.emplace(*of, std::move(answer));
  }
}

}  // namespace qx::test
