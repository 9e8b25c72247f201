#include "platform/identity/AuditToken.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using qx::AuditToken;
using qx::FileDescriptor;
using qx::test::ChildProcess;

/// A process at the other end of a connection that it made itself.
class Peer {
 public:
  Peer() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (directory_ / "socket").c_str(), sizeof address.sun_path - 1);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listener.get(), generic, sizeof address), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    id = fork();
    if (id == 0) {
      if (connect(socket(AF_UNIX, SOCK_STREAM, 0), generic, sizeof address) != 0) _exit(1);
      for (;;) pause();
    }
    connection.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  pid_t id = -1;
  FileDescriptor connection;

 private:
  qx::test::TemporaryDirectory directory_;
};

TEST(AuditTokenTest, NamesThePeerUntilItEnds) {
  Peer peer;
  auto token = AuditToken::ofPeer(peer.connection.get());
  EXPECT_EQ(token.processIdentifier(), peer.id);
  EXPECT_EQ(token.effectiveUser(), geteuid());
  EXPECT_EQ(token.effectiveGroup(), getegid());
  EXPECT_TRUE(token.isAlive());
  EXPECT_FALSE(token.isNobody());
  EXPECT_EQ(AuditToken::ofProcess(peer.id), token);

  // Ended and not yet reaped it identifies nobody, and neither does what it left behind.
  kill(peer.id, SIGKILL);
  siginfo_t info;
  waitid(P_PID, static_cast<id_t>(peer.id), &info, WEXITED | WNOWAIT);
  EXPECT_FALSE(token.isAlive());
  EXPECT_TRUE(AuditToken::ofPeer(peer.connection.get()).isNobody());
  EXPECT_TRUE(AuditToken::ofProcess(peer.id).isNobody());
  waitpid(peer.id, nullptr, 0);
  EXPECT_FALSE(token.isAlive());
  EXPECT_TRUE(AuditToken::ofPeer(peer.connection.get()).isNobody());
}

TEST(AuditTokenTest, AProgramCannotChooseItsStartTime) {
  auto before = AuditToken::ofProcess(getpid());
  ASSERT_GT(before.startTime(), 0u);
  ASSERT_EQ(prctl(PR_SET_NAME, ") Z 1 (2 3 ) 4"), 0);
  auto named = AuditToken::ofProcess(getpid());
  EXPECT_EQ(named, before);
  EXPECT_TRUE(named.isAlive());
}

TEST(AuditTokenTest, NobodyAndOthersAreNotAlive) {
  EXPECT_TRUE(AuditToken().isNobody());
  EXPECT_FALSE(AuditToken().isAlive());
  EXPECT_TRUE(AuditToken::ofProcess(0).isNobody());
  EXPECT_TRUE(AuditToken::ofProcess(-1).isNobody());
  EXPECT_TRUE(AuditToken::ofPeer(-1).isNobody());

  // The number of one process with the start time of another, as after the number was used again.
  ChildProcess child({"/bin/cat"});
  auto token = AuditToken::ofProcess(child.id());
  ASSERT_TRUE(token.isAlive());
  auto init = AuditToken::ofProcess(1);
  ASSERT_FALSE(init.isNobody());
  ASSERT_NE(init.startTime(), token.startTime());
  auto reused = token;
  std::copy(init.bytes.begin() + 16, init.bytes.begin() + 24, reused.bytes.begin() + 16);
  EXPECT_FALSE(reused.isAlive());
}

}  // namespace
