// Messages and descriptors over a socket pair.

#include "platform/platformd/kernel/EventChannel.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace qx::kernel {

std::pair<EventChannel, EventChannel> EventChannel::pair() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return {};
  return {EventChannel(FileDescriptor(ends[0])), EventChannel(FileDescriptor(ends[1]))};
}

EventChannel::Sent EventChannel::send(const Message& message, int descriptor, bool wait) const {
  Message copy = message;
  iovec part{&copy, sizeof copy};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (descriptor >= 0) {
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  }
  ssize_t count = 0;
  do {
    count = sendmsg(socket_.get(), &header, MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT));
  } while (count < 0 && errno == EINTR);
  if (count == sizeof copy) return Sent::yes;
  return errno == EAGAIN || errno == ETOOMANYREFS || errno == ENOBUFS ? Sent::later : Sent::never;
}

bool EventChannel::hasEnded() const {
  pollfd end{socket_.get(), 0, 0};
  return poll(&end, 1, 0) > 0 && (end.revents & POLLHUP) != 0;
}

EventChannel::State EventChannel::receive(Received& received) const {
  iovec part{&received.message, sizeof received.message};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  ssize_t count = 0;
  // That the other end fell before it read everything is told once; what it sent comes after that.
  do {
    count = recvmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (count < 0 && (errno == EINTR || errno == ECONNRESET));
  if (count < 0 && errno == EAGAIN) return State::nothing;
  const bool isCut = (header.msg_flags & MSG_TRUNC) != 0;
  if (count != sizeof received.message || isCut) return State::ended;
  received.descriptor.reset();
  const cmsghdr* rights = CMSG_FIRSTHDR(&header);
  if (rights && rights->cmsg_level == SOL_SOCKET && rights->cmsg_type == SCM_RIGHTS) {
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
    received.descriptor.reset(descriptor);
  }
  return State::message;
}

}  // namespace qx::kernel
