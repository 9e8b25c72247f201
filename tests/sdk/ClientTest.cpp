// The consumer's library with a daemon that is stopped, killed, and comes back. (What each
// operation carries there and back the tests of the command line show, which is made of them.)

#include "docsource/client.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <future>

#include "tests/support/BundleMaker.h"
#include "tests/support/Daemons.h"
#include "tests/support/Operations.h"
#include "tests/support/TemporaryRoot.h"

namespace qx::test {
namespace {

using docsource::Client;
using docsource::LibraryError;
using docsource::Result;
using namespace std::chrono_literals;

class ClientTest : public testing::Test {
 protected:
  ClientTest() { beApplication("com.example.app", {{readEntitlement, true}}); }

  void serve() {
    daemon_.emplace("docsourced", root_);
    ASSERT_TRUE(eventually([] { return Client(20s).wakeUp().ok(); }));
  }
  /// Until it is told to go on it takes calls and answers none.
  void tell(int signal) const {
    ASSERT_EQ(::kill(daemon_->id(), signal), 0);
    // A signal may come late.
    const auto id = static_cast<id_t>(daemon_->id());
    siginfo_t info{};
    if (signal == SIGSTOP) {
      ASSERT_EQ(::waitid(P_PID, id, &info, WSTOPPED), 0);
    }
  }

  const std::string root_ = temporaryRoot();
  std::optional<Daemon> daemon_;
};

/// A callback whose result the test waits for, and that notices a second call.
class Awaited {
 public:
  Client::Callback<void> callback() {
    return [this](Result<void> result) {
      if (calls_++ == 0) promise_.set_value(std::move(result));
    };
  }
  Result<void> get() { return promise_.get_future().get(); }
  int calls() const { return calls_; }

 private:
  std::promise<Result<void>> promise_;
  std::atomic<int> calls_ = 0;
};

TEST_F(ClientTest, WhatIsNotAnsweredTimesOutAndIsOver) {
  serve();
  Client client(10ms);
  ASSERT_TRUE(client.wakeUp(20s));
  tell(SIGSTOP);
  EXPECT_TRUE(client.wakeUp().error().is(LibraryError::timedOut));
  EXPECT_TRUE(client.wakeUp(20ms).error().is(LibraryError::timedOut));
  Awaited callback;
  client.wakeUp(callback.callback());
  EXPECT_TRUE(callback.get().error().is(LibraryError::timedOut));
  // Going away fails what is in flight.
  Awaited inFlight;
  {
    Client leaving(Client::noTimeout);
    leaving.wakeUp(inFlight.callback());
  }
  EXPECT_TRUE(inFlight.get().error().is("QXConduitErrorDomain", 4));

  // Late answers go nowhere, and the connection is none the worse.
  tell(SIGCONT);
  EXPECT_TRUE(client.providers(20s));
  EXPECT_TRUE(client.wakeUp(Client::noTimeout));
  EXPECT_EQ(callback.calls(), 1);
}

TEST_F(ClientTest, FindsTheDaemonAgainAfterItWasAway) {
  Client client(20s);
  const auto away = client.wakeUp();
  ASSERT_TRUE(away.error().is(LibraryError::serviceUnavailable)) << away.error().text();
  ASSERT_TRUE(away.error().underlying());
  EXPECT_TRUE(away.error().underlying()->is("QXPOSIXErrorDomain", ENOENT));
  EXPECT_TRUE(away.error().isConnectionFailure());
  for (int life = 1; life <= 3; ++life) {
    serve();
    EXPECT_TRUE(client.providers()) << "life " << life;
    tell(SIGSTOP);
    Awaited inFlight;
    client.wakeUp(inFlight.callback());
    auto waiting = std::async(std::launch::async, [&] { return client.wakeUp(); });
    EXPECT_EQ(daemon_->end(SIGKILL), -SIGKILL);
    const auto lost = inFlight.get();
    EXPECT_TRUE(lost.error().is("QXConduitErrorDomain", 4)) << lost.error().text();
    EXPECT_TRUE(lost.error().isConnectionFailure());
    EXPECT_TRUE(waiting.get().error().isConnectionFailure());
  }
}

TEST_F(ClientTest, CallbacksMayWaitForFurtherCalls) {
  serve();
  constexpr int count = 300;
  Client client(30s);
  Gate done;
  std::atomic<int> succeeded = 0;
  for (int i = 0; i < count; ++i) {
    client.wakeUp([&](const Result<void>& first) {
      const auto second = client.bookmarkableString("file:///nowhere");
      client.providers([&, ok = first.ok() && second.ok() && !*second](const auto& third) {
        if (ok && third && client.wakeUp()) ++succeeded;
        done.pass();
      });
    });
  }
  done.wait(count);
  EXPECT_EQ(succeeded, count);
}

}  // namespace
}  // namespace qx::test
