// The provider's library, run in this process over a socket pair at whose other end the test plays
// the broker.

#include "docsource/provider.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "platform/base/Errors.h"
#include "platform/conduit/QXConduitConnection.h"
#include "providers/_QXDocSourceVendor.h"
#include "tests/sdk/ProviderBroker.h"
#include "tests/support/Gate.h"

using docsource::Error;
using docsource::Result;
using qx::test::Gate;
using sdk::test::Broker;

namespace {

/// Its operations do what the test says.
class TestProvider final : public docsource::Provider {
 public:
  using Provider::Provider;

  std::function<Result<void>(const std::string& operation, const std::string& path)> act =
      [](const std::string&, const std::string&) { return Result<void>(); };
  std::function<Result<std::string>(const std::string& argument)> look =
      [](const std::string& argument) { return Result<std::string>(argument + "!"); };

 protected:
  Result<void> performInitialSetup() override { return act("setup", ""); }
  Result<void> providePlaceholder(const std::string& path) override {
    return act("placeholder", path);
  }
  Result<void> startProviding(const std::string& path) override { return act("start", path); }
  Result<void> itemChanged(const std::string& path) override { return act("changed", path); }
  Result<void> stopProviding(const std::string& path) override { return act("stop", path); }
  Result<std::string> identifierForItem(const std::string& path) override { return look(path); }
  Result<std::string> pathForItem(const std::string& identifier) override {
    return look("/" + identifier);
  }
};

class ProviderTest : public ::testing::Test {
 protected:
  ProviderTest() {
    ::setenv("QX_EXTENSION_IDENTIFIER", "org.example.provider", 1);
    ::setenv("QX_DOCUMENT_STORAGE", "/group/Doc Source Storage/", 1);
    // As the main thread of a provider has it from run() on.
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &termination, nullptr);
  }

  /// Runs the provider on a thread of its own, the way main() would.
  Broker& start(TestProvider& provider) {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ::setenv("QX_EXTENSION_CONNECTION", std::to_string(ends[1]).c_str(), 1);
    broker_.emplace(qx::FileDescriptor(ends[0]));
    status_ = std::async(std::launch::async, [&provider] { return provider.run(); });
    return *broker_;
  }
  int endAndWait() {
    broker_->close();
    return status_.get();
  }
  int wait() { return status_.get(); }
  bool hasEnded() const {
    return status_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }

 private:
  std::optional<Broker> broker_;
  std::future<int> status_;
};

TEST_F(ProviderTest, AllSevenOperationsReachTheProviderAndAreAnswered) {
  TestProvider provider;
  std::vector<std::string> acts;
  provider.act = [&](const std::string& operation, const std::string& path) {
    acts.push_back(operation + " " + path);
    return Result<void>();
  };
  Broker& broker = start(provider);
  const auto setup = broker.setUp();
  EXPECT_FALSE(setup.error);
  EXPECT_EQ(setup.text, "org.example.provider");
  EXPECT_EQ(setup.url, qx::URL("file:///group/Doc%20Source%20Storage/"));
  EXPECT_EQ(provider.documentStorage(), "/group/Doc Source Storage");
  const qx::URL url("file:///s/a%20b");
  EXPECT_EQ(broker.placeholder(url).url, url);
  EXPECT_FALSE(broker.start(url).error);
  EXPECT_FALSE(broker.changed(url).error);
  EXPECT_FALSE(broker.stop(url).error);
  EXPECT_EQ(broker.identifier(url).text, "/s/a b!");
  EXPECT_EQ(broker.url("i d").url, qx::URL("file:///i%20d%21"));
  EXPECT_EQ(acts, (std::vector<std::string>{"setup ", "placeholder /s/a b", "start /s/a b",
                                            "changed /s/a b", "stop /s/a b"}));
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, ErrorsOfTheProviderKeepWhatTheySay) {
  TestProvider provider;
  const Error refusal("Org", 5, "Not today.", {{"URL", "file:///s/a"}, {"why", "rain"}},
                      Error::posix(EIO, "It rains"));
  provider.act = [&](const std::string&, const std::string&) { return Result<void>(refusal); };
  provider.look = [&](const std::string&) { return Result<std::string>(refusal); };
  Broker& broker = start(provider);
  const qx::URL url("file:///s/a");
  for (const auto& answer :
       {broker.setUp(), broker.placeholder(url), broker.start(url), broker.changed(url),
        broker.stop(url), broker.identifier(url), broker.url("x")}) {
    ASSERT_TRUE(answer.error);
    EXPECT_FALSE(answer.text);
    EXPECT_FALSE(answer.url);
    EXPECT_EQ(answer.error->text(), refusal.text());
    const auto* named = qx::find<qx::URL>(answer.error->info(), "URL");
    ASSERT_TRUE(named);
    EXPECT_EQ(*named, url);
    const auto* why = qx::find<std::string>(answer.error->info(), "why");
    ASSERT_TRUE(why);
    EXPECT_EQ(*why, "rain");
    EXPECT_TRUE(answer.error->underlyingError()->is("QXPOSIXErrorDomain", EIO));
  }
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, WhatIsNoFileNeverReachesTheProvider) {
  TestProvider provider;
  provider.act = [](const std::string&, const std::string& path) -> Result<void> {
    ADD_FAILURE() << path;
    return {};
  };
  Broker& broker = start(provider);
  for (const auto& url : {std::optional(qx::URL("http://host/a")), std::optional<qx::URL>(),
                          std::optional(qx::URL("file:///a%00b"))}) {
    for (const auto& answer : {broker.placeholder(url), broker.start(url), broker.changed(url),
                               broker.stop(url), broker.identifier(url)}) {
      ASSERT_TRUE(answer.error);
      EXPECT_TRUE(answer.error->is("DSErrorDomain", 4)) << answer.error->text();
    }
  }
  EXPECT_TRUE(broker.url(std::nullopt).error->is("DSErrorDomain", 4));
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, SerialOperationsRunOneAtATimeInOrder) {
  TestProvider provider(docsource::Provider::Concurrency::serial);
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  std::vector<std::string> order;
  provider.act = [&](const std::string&, const std::string& path) {
    if (++running > most) most = running.load();
    order.push_back(path);
    std::this_thread::yield();
    --running;
    return Result<void>();
  };
  Broker& broker = start(provider);
  Gate answered;
  std::vector<std::string> expected;
  for (int i = 0; i < 100; ++i) {
    expected.push_back("/" + std::to_string(i));
    broker.vendor()->_startProvidingItemAtURL_completion(qx::URL::fileURL(expected.back()),
                                                         [&](const auto&) { answered.pass(); });
  }
  answered.wait(expected.size());
  EXPECT_EQ(order, expected);
  EXPECT_EQ(most, 1);
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, ConcurrentOperationsDoNotWaitForOneAnother) {
  TestProvider provider(docsource::Provider::Concurrency::concurrent);
  Gate together;
  provider.act = [&](const std::string&, const std::string&) {
    together.pass();
    together.wait(3);
    return Result<void>();
  };
  Broker& broker = start(provider);
  Gate answered;
  for (const char* path : {"/a", "/b", "/c"}) {
    broker.vendor()->_startProvidingItemAtURL_completion(qx::URL::fileURL(path),
                                                         [&](const auto&) { answered.pass(); });
  }
  answered.wait(3);
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, RequestsBeginAndEndAroundOperationsAsTheyLike) {
  TestProvider provider(docsource::Provider::Concurrency::concurrent);
  Gate begun, goOn;
  provider.act = [&](const std::string&, const std::string& path) {
    if (path == "/given-up") {
      begun.pass();
      goOn.wait();
    }
    return Result<void>();
  };
  Broker& broker = start(provider);
  const qx::UUID request = qx::UUID::random();
  broker.connection().beginRequest(request);
  std::atomic<int> answers = 0;
  auto auxiliary = broker.connection().auxiliaryConnection(
      request, QXConduitInterface::interfaceWithProtocol<_QXDocSourceVendor>());
  auxiliary
      ->remoteObjectProxyWithErrorHandler<_QXDocSourceVendor>([&](const qx::Error&) { ++answers; })
      ->_startProvidingItemAtURL_completion(qx::URL("file:///given-up"),
                                            [&](const auto&) { ++answers; });
  begun.wait();
  broker.connection().endRequest(request);
  broker.connection().failRequest(request);
  EXPECT_FALSE(broker.start(qx::URL("file:///other")).error);
  goOn.pass();
  EXPECT_FALSE(broker.start(qx::URL("file:///third")).error);
  EXPECT_EQ(endAndWait(), 0);
  EXPECT_EQ(answers, 1) << "it failed when it was given up, and what came later was dropped";
}

TEST_F(ProviderTest, EndsAfterTheOperationThatRuns) {
  for (const bool terminated : {false, true}) {
    SCOPED_TRACE(terminated ? "SIGTERM" : "the connection was closed");
    TestProvider provider;
    Gate begun, goOn;
    std::atomic<int> finished = 0;
    provider.act = [&](const std::string&, const std::string&) {
      begun.pass();
      goOn.wait();
      ++finished;
      return Result<void>();
    };
    Broker& broker = start(provider);
    std::promise<bool> answered;
    broker.vendor()->_stopProvidingItemAtURL_completion(
        qx::URL("file:///a"), [&](const auto& error) { answered.set_value(!error); });
    begun.wait();
    if (terminated) {
      ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
    } else {
      broker.close();
    }
    EXPECT_FALSE(hasEnded());
    goOn.pass();
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(finished, 1);
    if (terminated) {
      EXPECT_TRUE(answered.get_future().get()) << "the answer of what had begun still goes out";
      sigset_t termination;
      sigemptyset(&termination);
      sigaddset(&termination, SIGTERM);
      EXPECT_EQ(::sigwaitinfo(&termination, nullptr), SIGTERM);
    }
  }
}

TEST_F(ProviderTest, RefusesToRunWithoutItsBroker) {
  for (const char* connection : {"", "x", "99999", "3x", "-1"}) {
    ::setenv("QX_EXTENSION_CONNECTION", connection, 1);
    EXPECT_EQ(TestProvider().run(), 2) << connection;
  }
  ::unsetenv("QX_EXTENSION_CONNECTION");
  EXPECT_EQ(TestProvider().run(), 2);
}

}  // namespace
