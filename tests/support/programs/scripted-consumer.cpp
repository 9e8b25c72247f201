// An application's executable: each copy is an identity of its own. It makes connections to
// services and hands them to the test, which speaks over them: to the service they are this
// process's. Asked over the socket that is its standard input; ends with it.
//
// With the argument "powerless" it gives up all capabilities first.

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/conduit/ServiceSocket.h"
#include "tests/support/RawPeer.h"

int main(int argc, char* argv[]) {
  if (argc > 1 && std::string(argv[1]) == "powerless") {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    if (syscall(SYS_capset, &header, none.data()) != 0) return 1;
  }
  qx::test::RawPeer test{qx::FileDescriptor(STDIN_FILENO)};
  test.waitForever();
  std::array<char, 256> name{};
  for (;;) {
    const ssize_t size = recv(test.socket(), name.data(), name.size(), 0);
    if (size <= 0) return 0;
    const auto made = qx::connectToServiceSocket({name.data(), static_cast<std::size_t>(size)});
    const std::array<std::uint8_t, 1> byte{};
    test.sendBytes(byte, made ? std::vector{made->get()} : std::vector<int>());
  }
}
