// The floor of a call: sends back every frame that it gets, each as soon as it has it, as a server
// has to that answers each call when its answer is there. One thread, one epoll set, nothing else.
// usage: echo-server SOCKET

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>

#include "bench/Figures.h"

namespace {

constexpr std::size_t headerSize = 4;

std::size_t frameSize(std::string_view bytes) {
  std::size_t size = 0;
  for (const char byte : bytes.substr(0, headerSize)) {
    size = size << 8U | static_cast<unsigned char>(byte);
  }
  return size + headerSize;
}

/// False when the connection is over.
bool echo(int connection, std::string& pending) {
  std::array<char, 65536> buffer;
  const ssize_t count = recv(connection, buffer.data(), buffer.size(), 0);
  if (count <= 0) return false;
  std::string_view bytes(buffer.data(), static_cast<std::size_t>(count));
  if (!pending.empty()) {
    pending += bytes;
    bytes = pending;
  }
  while (bytes.size() >= headerSize && bytes.size() >= frameSize(bytes)) {
    const std::string_view frame = bytes.substr(0, frameSize(bytes));
    if (send(connection, frame.data(), frame.size(), MSG_NOSIGNAL) < 0) return false;
    bytes.remove_prefix(frame.size());
  }
  pending = std::string(bytes);
  return true;
}

void watch(int epoll, int descriptor) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) bench::fail("epoll_ctl");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) bench::fail("usage: echo-server SOCKET");
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, argv[1], sizeof address.sun_path - 1);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, SOMAXCONN) != 0) {
    bench::fail("the socket cannot be bound");
  }
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  watch(epoll, listener);
  std::map<int, std::string> pending;
  for (;;) {
    std::array<epoll_event, 64> events;
    const int count = epoll_wait(epoll, events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      const int descriptor = events[static_cast<std::size_t>(i)].data.fd;
      if (descriptor == listener) {
        watch(epoll, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
      } else if (!echo(descriptor, pending[descriptor])) {
        pending.erase(descriptor);
        close(descriptor);
      }
    }
  }
}
