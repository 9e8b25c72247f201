#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "platform/conduit/Codec.h"
#include "tests/support/Mailbox.h"

namespace qx::test {

/// Two connected AF_UNIX stream sockets.
inline std::pair<FileDescriptor, FileDescriptor> socketPair() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

/// Receives what comes next over a socket, with its descriptors behind those that are there
/// already (recvmsg(2)).
inline ssize_t receiveFrom(int socket, std::span<std::uint8_t> bytes,
                           std::vector<FileDescriptor>& descriptors) {
  iovec part{bytes.data(), bytes.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * conduit::maximumDescriptors)> control;
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t count = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  if (count < 0) return count;
  for (auto* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_type != SCM_RIGHTS) continue;
    for (std::size_t at = CMSG_LEN(0); at < header->cmsg_len; at += sizeof(int)) {
      int descriptor = -1;
      std::memcpy(&descriptor, reinterpret_cast<char*>(header) + at, sizeof descriptor);
      descriptors.emplace_back(descriptor);
    }
  }
  return count;
}

/// The far end of a conduit, which sends whatever a test wants. Blocking, with the patience of the
/// tests.
class RawPeer {
 public:
  explicit RawPeer(FileDescriptor socket) : socket_(std::move(socket)) {
    fcntl(socket_.get(), F_SETFL, 0);
    const timeval limit{patience.count(), 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  }

  int socket() const { return socket_.get(); }
  void close() { socket_.reset(); }
  /// Without patience from now on: for programs that serve.
  void waitForever() {
    const timeval none{};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
  }

  /// Bytes as they are, in one write as long as the socket takes them; false when the other end
  /// is gone.
  bool sendBytes(std::span<const std::uint8_t> bytes, std::vector<int> descriptors = {},
                 int flags = 0) {
    while (!bytes.empty()) {
      iovec part{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
      msghdr message{};
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      std::vector<char> control(CMSG_SPACE(sizeof(int) * descriptors.size()));
      if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
        std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof(int) * descriptors.size());
      }
      ssize_t count = sendmsg(socket_.get(), &message, MSG_NOSIGNAL | flags);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return false;
      descriptors.clear();
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
  }

  static std::vector<std::uint8_t> frame(std::span<const std::uint8_t> body) {
    auto size = static_cast<std::uint32_t>(body.size());
    std::vector<std::uint8_t> bytes;
    for (unsigned shift : {24U, 16U, 8U, 0U}) {
      bytes.push_back(static_cast<std::uint8_t>(size >> shift));
    }
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
  }

  /// A call; its arguments are written by `arguments`.
  template <class Arguments>
  static std::vector<std::uint8_t> call(std::int64_t id, std::string_view operation,
                                        Arguments arguments) {
    conduit::Encoder message;
    message.array(4);
    message.integer(1);
    message.integer(id);
    message.string(operation);
    arguments(message);
    return message.takeFrame();
  }

  /// The body of the next frame, and the descriptors that came with it; absent when the connection
  /// is over.
  std::optional<std::vector<std::uint8_t>> readFrame() {
    received.clear();
    std::array<std::uint8_t, conduit::frameHeaderSize> header;
    if (!readWhole(header)) return std::nullopt;
    std::size_t size = 0;
    for (std::uint8_t byte : header) size = size << 8U | byte;
    std::vector<std::uint8_t> body(size);
    if (size > conduit::maximumFrameSize || !readWhole(body)) return std::nullopt;
    return body;
  }
  std::vector<SharedDescriptor> received;

  struct Message {
    std::int64_t kind = 0;
    std::int64_t id = 0;
    std::vector<std::uint8_t> body;
    /// Of a failure.
    std::optional<Error> error;
    /// Of a reply or a call with one argument.
    Value first;
    std::string operation;
  };
  std::optional<Message> readMessage() {
    auto body = readFrame();
    if (!body || !conduit::isWellFormed(*body, conduit::maximumDescriptors)) return std::nullopt;
    Message message;
    message.body = std::move(*body);
    conduit::Decoder decoder(message.body, {});
    if (!decoder.next() || !conduit::decode(decoder, message.kind)) return std::nullopt;
    if (message.kind > 3) return message;
    conduit::decode(decoder, message.id);
    if (message.kind == 1) conduit::decode(decoder, message.operation);
    if (message.kind == 3) {
      conduit::decode(decoder, message.error);
    } else if (auto count = decoder.peekArray(); count && *count > 0) {
      decoder.next();
      conduit::decode(decoder, message.first);
    }
    return message;
  }

  /// Reads what is left and waits for the end; false when there is none.
  bool isClosedByPeer() {
    std::array<char, 4096> buffer;
    for (;;) {
      ssize_t count = recv(socket_.get(), buffer.data(), buffer.size(), 0);
      if (count == 0) return true;
      if (count < 0) return errno == ECONNRESET;
    }
  }

 private:
  bool readWhole(std::span<std::uint8_t> bytes) {
    while (!bytes.empty()) {
      std::vector<FileDescriptor> descriptors;
      const ssize_t count = receiveFrom(socket_.get(), bytes, descriptors);
      // With a limit on the time a signal always interrupts (signal(7)).
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return false;
      for (auto& each : descriptors) {
        received.push_back(std::make_shared<const FileDescriptor>(std::move(each)));
      }
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
  }

  FileDescriptor socket_;
};

}  // namespace qx::test
