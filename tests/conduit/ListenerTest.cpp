#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "platform/base/Errors.h"
#include "platform/conduit/ServiceSocket.h"
#include "tests/conduit/TrialListener.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx::test;

const std::string service = "com.example.Trial";

bool socketFileExists() {
  struct stat status;
  return lstat(qx::Places::serviceSocket(service).c_str(), &status) == 0 &&
         S_ISSOCK(status.st_mode);
}

RawPeer connected() {
  auto socket = qx::connectToServiceSocket(service);
  EXPECT_TRUE(socket);
  if (!socket) return RawPeer(qx::FileDescriptor());
  fcntl(socket->get(), F_SETFL, 0);
  return RawPeer(std::move(*socket));
}

class Listener : public testing::Test {
 protected:
  void SetUp() override { temporaryRoot(); }
};

TEST_F(Listener, LetsClientsWaitUntilItIsResumed) {
  TrialListener trial(service);
  RawPeer early = connected();
  early.sendBytes(echoCall(77, "early"));
  EXPECT_EQ(trial.delegate->asked.passed(), 0u);
  trial.listener.resume();
  EXPECT_EQ(early.readMessage()->first, qx::Value("early"));
  RawPeer late = connected();
  EXPECT_TRUE(echoes(late));
  EXPECT_EQ(trial.delegate->asked.passed(), 2u);
  trial.delegate->refuses = true;
  RawPeer refused = connected();
  EXPECT_TRUE(refused.isClosedByPeer());
}

/// A socket that whoever closes it last waits for, as long as the other one, which never reads, is
/// open (SO_LINGER, socket(7)).
std::pair<qx::FileDescriptor, qx::FileDescriptor> lingering() {
  const qx::FileDescriptor server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(bind(server.get(), generic, size), 0);
  EXPECT_EQ(listen(server.get(), 1), 0);
  EXPECT_EQ(getsockname(server.get(), generic, &size), 0);
  qx::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(connect(socket.get(), generic, size), 0);
  qx::FileDescriptor reader(accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const linger limit{1, 600};
  EXPECT_EQ(setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &limit, sizeof limit), 0);
  const std::vector<char> bytes(1 << 20);
  while (send(socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
  }
  return {std::move(socket), std::move(reader)};
}

TEST_F(Listener, AcceptsOthersWhileItClosesWhatARefusedPeerSent) {
  TrialListener trial(service);
  RawPeer refused = connected();
  auto [socket, reader] = lingering();
  const std::array<std::uint8_t, 1> byte{};
  refused.sendBytes(byte, {socket.get()});
  socket.reset();
  trial.delegate->refuses = true;
  trial.listener.resume();
  RawPeer other = connected();
  EXPECT_TRUE(other.isClosedByPeer());
  reader.reset();
}

/// Owns the listener that asks it, as the services do.
struct Owner final : QXConduitListenerDelegate {
  bool listener_shouldAcceptNewConnection(QXConduitListener&,
                                          const std::shared_ptr<QXConduitConnection>&) override {
    self.reset();
    return false;
  }
  /// The last member to go.
  struct Ended {
    ~Ended() { gate->pass(); }
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
  } ended;
  std::shared_ptr<Owner> self;
  QXConduitListener listener{service};
};

TEST_F(Listener, EndsWhileItsOwnerIsAsked) {
  std::shared_ptr<Gate> ended;
  {
    auto owner = std::make_shared<Owner>();
    ended = owner->ended.gate;
    owner->self = owner;
    owner->listener.setDelegate(owner);
    owner->listener.resume();
  }
  RawPeer peer = connected();
  EXPECT_TRUE(peer.isClosedByPeer());
  ended->wait();
  EXPECT_FALSE(socketFileExists());
}

TEST_F(Listener, KeepsNobodyForEverWhoFindsItsQueueFull) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  TrialListener trial(service);
  std::vector<qx::FileDescriptor> waiting;
  for (;;) {
    auto socket = qx::connectToServiceSocket(service, std::chrono::milliseconds(10));
    if (socket) {
      waiting.push_back(std::move(*socket));
      continue;
    }
    if (socket.error().code() == EMFILE) GTEST_SKIP() << "too few descriptors to fill the queue";
    EXPECT_EQ(socket.error().code(), EAGAIN) << socket.error().text();
    break;
  }
  // Whoever got in is served.
  trial.listener.resume();
  fcntl(waiting.back().get(), F_SETFL, 0);
  RawPeer last(std::move(waiting.back()));
  EXPECT_TRUE(echoes(last));
}

TEST_F(Listener, ForgetsAConnectionThatEndsAndEndsThoseThatItHas) {
  RawPeer second(qx::FileDescriptor{});
  auto trial = std::make_unique<TrialListener>(service);
  auto delegate = trial->delegate;
  trial->listener.resume();
  {
    RawPeer first = connected();
    ASSERT_TRUE(echoes(first));
  }
  delegate->ended->wait();
  // Its object goes with it, although the delegate has an invalidation handler of its own.
  RawPeer witness = connected();
  auto object = delegate->objects.all().front();
  while (!object.expired()) ASSERT_TRUE(echoes(witness));

  second = connected();
  ASSERT_TRUE(echoes(second));
  EXPECT_TRUE(socketFileExists());
  trial.reset();
  EXPECT_TRUE(second.isClosedByPeer());
  EXPECT_FALSE(socketFileExists());
  EXPECT_FALSE(callsThrough(service));

  TrialListener again(service);
  again.listener.resume();
  EXPECT_TRUE(callsThrough(service));
}

/// In a user namespace of its own: how many connections are served before one is not. Then one of
/// them keeps too many bytes, and 0 says that it was not closed for that.
int servedInASandbox() {
  std::vector<RawPeer> held;
  for (held.push_back(connected()); echoes(held.back()); held.push_back(connected())) {
  }
  held.pop_back();
  const auto frame = echoCall(1, std::string(2U << 20U, 'x'));
  held.front().sendBytes(std::span(frame).first(frame.size() - 1));
  return held.front().isClosedByPeer() ? static_cast<int>(held.size()) : 0;
}

TEST_F(Listener, LeavesRoomForOthersThanSandboxes) {
  constexpr int most = 20;
  auto [near, far] = socketPair();
  const pid_t child = fork();
  if (child == 0) {
    near.reset();
    const char isThere = unshare(CLONE_NEWUSER) == 0 ? 'y' : 'n';
    char go = 0;
    const bool goes = write(far.get(), &isThere, 1) == 1 && read(far.get(), &go, 1) == 1;
    _exit(goes && write(far.get(), &(go = static_cast<char>(servedInASandbox())), 1) == 1 &&
                  read(far.get(), &go, 1) == 1
              ? 0
              : 1);
  }
  ASSERT_GT(child, 0);
  char answer = 0;
  ASSERT_EQ(read(near.get(), &answer, 1), 1);
  if (answer == 'y') {
    TrialListener trial(service);
    trial.listener.boundSandboxes(std::make_shared<qx::SandboxRoom>(most, 1U << 20U));
    trial.listener.resume();
    ASSERT_EQ(write(near.get(), &answer, 1), 1);
    ASSERT_EQ(read(near.get(), &answer, 1), 1);
    EXPECT_EQ(answer, most);
    std::vector<RawPeer> others;
    for (int i = 0; i < most; ++i) {
      others.push_back(connected());
      EXPECT_TRUE(echoes(others.back()));
    }
    ASSERT_EQ(write(near.get(), &answer, 1), 1);
  } else {
    near.reset();
  }
  waitpid(child, nullptr, 0);
  if (answer == 'n') GTEST_SKIP() << "needs a user namespace";
}

TEST_F(Listener, IsReachableFromTheMomentItsSocketFileIsThere) {
  // A client that watches for the file may connect at once.
  std::atomic<bool> stop{false};
  std::atomic<int> refused{0};
  std::thread client([&] {
    while (!stop) {
      auto socket = qx::connectToServiceSocket(service);
      if (!socket && socket.error().is(QXPOSIXErrorDomain, ECONNREFUSED)) ++refused;
    }
  });
  std::vector<qx::ListeningSocket> all;
  for (int i = 0; i < 200; ++i) {
    auto listening = qx::listenOnServiceSocket(service);
    ASSERT_TRUE(listening);
    all.push_back(std::move(*listening));
    qx::removeServiceSocket(service);
  }
  stop = true;
  client.join();
  EXPECT_EQ(refused.load(), 0);
}

}  // namespace
