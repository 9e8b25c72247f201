// An application's executable: each copy is an identity of its own. It makes connections to
// services and hands them to the test, which speaks over them: to the service they are this
// process's. Asked over the socket that is its standard input; ends with it.
//
// With the argument "powerless" it gives up all capabilities first.

#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/base/FileDescriptor.h"

namespace {

/// From within the runtime directory, so that the length of its path does not matter.
qx::FileDescriptor connectTo(const std::string& name) {
  const char* root = std::getenv("DOCSOURCE_ROOT");
  if (!root || chdir((std::string(root) + "/run").c_str()) != 0) return {};
  qx::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path, sizeof address.sun_path - 1);
  if (connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return {};
  return socket;
}

void handOver(int descriptor) {
  char byte = descriptor >= 0 ? 1 : 0;
  iovec part{&byte, 1};
  std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (descriptor >= 0) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  sendmsg(STDIN_FILENO, &message, MSG_NOSIGNAL);
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc > 1 && std::string(argv[1]) == "powerless") {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    if (syscall(SYS_capset, &header, none.data()) != 0) return 1;
  }
  std::array<char, 256> name{};
  for (;;) {
    const ssize_t size = recv(STDIN_FILENO, name.data(), name.size(), 0);
    if (size <= 0) return 0;
    handOver(connectTo(std::string(name.data(), static_cast<std::size_t>(size))).get());
  }
}
