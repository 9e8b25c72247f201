// The tests of the conduit. As "activated NAME" the program is a service that is handed its socket
// by the service manager; it says "ready" or "nothing", and serves until standard input ends.

#include <gtest/gtest.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/conduit/ServiceSocket.h"
#include "platform/files/Places.h"
#include "tests/conduit/TrialListener.h"

namespace {

using namespace qx::test;

int serve(const std::string& name) {
  TrialListener listener(name);
  listener.listener.resume();
  std::printf("%s\n", qx::connectToServiceSocket(name) ? "ready" : "nothing");
  std::fflush(stdout);
  char byte = 0;
  while (read(STDIN_FILENO, &byte, 1) == 1) continue;
  return 0;
}

/// Takes the place of the service manager: the socket is descriptor 4, under the service's name.
int activated(const std::string& name, char** arguments) {
  if (qx::Places::prepare() != 0) return 1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, qx::Places::serviceSocket(name).c_str(),
               sizeof address.sun_path - 1);
  int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 1;
  if (listen(socket, 16) != 0 || dup2(socket, 4) != 4 || dup2(STDERR_FILENO, 3) != 3) return 1;
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  setenv("LISTEN_FDS", "2", 1);
  setenv("LISTEN_FDNAMES", ("other:" + name).c_str(), 1);
  char mode[] = "serve";
  char* const next[] = {arguments[0], mode, arguments[2], nullptr};
  execv("/proc/self/exe", next);
  return 1;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string mode = count == 3 ? arguments[1] : "";
  if (mode == "serve") return serve(arguments[2]);
  if (mode == "activated") return activated(arguments[2], arguments);
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
