// The provider's library, run in this process over a socket pair at whose other end the test plays
// the broker.

#include "docsource/provider.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>

#include "tests/support/Gate.h"
#include "tests/support/Operations.h"
#include "tests/support/Wire.h"

namespace qx::test {
namespace {

using docsource::Result;

const Value absent;

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

class ProviderTest : public testing::Test {
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
  Wire& start(TestProvider& provider) {
    auto [mine, theirs] = socketPair();
    ::setenv("QX_EXTENSION_CONNECTION", std::to_string(theirs.release()).c_str(), 1);
    wire_.emplace(std::move(mine));
    status_ = std::async(std::launch::async, [&provider] { return provider.run(); });
    return *wire_;
  }
  int wait() { return status_.get(); }
  int endAndWait() {
    wire_->close();
    return wait();
  }
  bool hasEnded() const {
    return status_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }

  const URL url{"file:///s/a%20b"};
  /// Each operation with its argument.
  const std::vector<std::pair<const char*, Array>> operations{
      {vendorSetUp, {}},   {vendorPlaceholder, {url}}, {vendorStart, {url}}, {vendorChanged, {url}},
      {vendorStop, {url}}, {vendorIdentifier, {url}},  {vendorURL, {"i d"}}};

 private:
  std::optional<Wire> wire_;
  std::future<int> status_;
};

TEST_F(ProviderTest, ErrorsOfTheProviderKeepWhatTheySay) {
  TestProvider provider;
  const docsource::Error refusal("Org", 5, "Not today.", {{"URL", "file:///s/a"}, {"why", "rain"}},
                                 docsource::Error::posix(EIO, "It rains"));
  provider.act = [&](const std::string&, const std::string&) { return Result<void>(refusal); };
  provider.look = [&](const std::string&) { return Result<std::string>(refusal); };
  Wire& broker = start(provider);
  for (const auto& [operation, with] : operations) {
    const auto answer = broker.call(operation, with);
    const auto error = answer.error();
    ASSERT_TRUE(error) << operation;
    EXPECT_EQ(std::count(answer.values.begin(), answer.values.end(), absent),
              static_cast<std::ptrdiff_t>(answer.values.size()) - 1);
    EXPECT_EQ(error->text(), refusal.text());
    EXPECT_EQ(error->info().at("URL"), Value(URL("file:///s/a")));
    EXPECT_EQ(error->info().at("why"), Value("rain"));
    EXPECT_TRUE(error->underlyingError()->is("QXPOSIXErrorDomain", EIO));
  }
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, WhatIsNoFileNeverReachesTheProvider) {
  TestProvider provider;
  provider.act = [](const std::string&, const std::string& path) -> Result<void> {
    ADD_FAILURE() << path;
    return {};
  };
  Wire& broker = start(provider);
  for (const Value& none : {Value(URL("http://host/a")), absent, Value(URL("file:///a%00b"))}) {
    for (const char* operation :
         {vendorPlaceholder, vendorStart, vendorChanged, vendorStop, vendorIdentifier}) {
      EXPECT_EQ(broker.call(operation, {none}).outcome(), "DSErrorDomain 4") << operation;
    }
  }
  EXPECT_EQ(broker.call(vendorURL, {absent}).outcome(), "DSErrorDomain 4");
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, SerialOperationsRunOneAtATimeInOrder) {
  TestProvider provider(docsource::Provider::Concurrency::serial);
  std::atomic<int> running = 0;
  std::vector<std::string> order;
  provider.act = [&](const std::string&, const std::string& path) {
    EXPECT_EQ(++running, 1);
    order.push_back(path);
    std::this_thread::yield();
    --running;
    return Result<void>();
  };
  Wire& broker = start(provider);
  std::vector<std::int64_t> calls;
  std::vector<std::string> expected;
  for (int i = 0; i < 100; ++i) {
    expected.push_back("/" + std::to_string(i));
    calls.push_back(broker.begin(vendorStart, {URL::fileURL(expected.back())}));
  }
  for (const auto call : calls) EXPECT_EQ(broker.answer(call).outcome(), "success");
  EXPECT_EQ(order, expected);
  EXPECT_EQ(endAndWait(), 0);
}

TEST_F(ProviderTest, ConcurrentOperationsDoNotWaitForOneAnotherNorForTheEndOfARequest) {
  TestProvider provider(docsource::Provider::Concurrency::concurrent);
  Gate together;
  provider.act = [&](const std::string&, const std::string&) {
    together.pass();
    together.wait(3);
    return Result<void>();
  };
  Wire& broker = start(provider);
  const auto request = UUID::random();
  broker.send({4, request});
  broker.send({1, 99, vendorStart, Array{url}, request});
  broker.send({5, request});
  const auto one = broker.begin(vendorStart, {url}), two = broker.begin(vendorStart, {url});
  EXPECT_EQ(broker.answer(one).outcome(), "success");
  EXPECT_EQ(broker.answer(two).outcome(), "success");
  EXPECT_EQ(endAndWait(), 0);
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
    Wire& broker = start(provider);
    const auto call = broker.begin(vendorStop, {url});
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
    if (!terminated) continue;
    EXPECT_EQ(broker.answer(call).outcome(), "success") << "what had begun is still answered";
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    EXPECT_EQ(::sigwaitinfo(&termination, nullptr), SIGTERM);
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
}  // namespace qx::test
