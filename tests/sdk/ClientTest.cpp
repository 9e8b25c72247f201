// The consumer's library against services that the test plays over real sockets.

#include "docsource/client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>

#include "tests/sdk/FakeServices.h"
#include "tests/support/Gate.h"

using docsource::Client;
using docsource::LibraryError;
using docsource::Result;
using qx::test::Gate;
using sdk::test::FakeCoordination;
using sdk::test::FakeDaemon;
using sdk::test::FakeSandbox;
using sdk::test::Serving;
using namespace std::chrono_literals;

namespace {

constexpr const char* document = "file:///storage/a%20b.txt";

class ClientTest : public ::testing::Test {
 protected:
  ClientTest() { sdk::test::root(); }

  void serve() { serving_.emplace(dsDaemonServiceName, daemon); }
  void stopServing() { serving_.reset(); }

  std::shared_ptr<FakeDaemon> daemon = std::make_shared<FakeDaemon>();

 private:
  std::optional<Serving<DSDaemon>> serving_;
};

/// A callback whose result the test waits for, and that notices a second call.
template <class T>
class Awaited {
 public:
  Client::Callback<T> callback() {
    return [this](Result<T> result) {
      if (calls_++ == 0) promise_.set_value(std::move(result));
    };
  }
  Result<T> get() { return promise_.get_future().get(); }
  int calls() const { return calls_; }

 private:
  std::promise<Result<T>> promise_;
  std::atomic<int> calls_ = 0;
};

std::string contentOf(const docsource::Descriptor& file) {
  std::string content(100, '\0');
  const ssize_t count = ::read(file.get(), content.data(), content.size());
  content.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return content;
}

TEST_F(ClientTest, EveryOperationCarriesItsArgumentsAndItsAnswer) {
  serve();
  daemon->listing = {{"p", qx::Dictionary{{"providerIdentifier", "org.p"},
                                          {"documentStorageURL", qx::URL("file:///storage/")}}},
                     {"q", qx::Dictionary{{"providerIdentifier", "org.q"}}}};
  Client client(10s);

  EXPECT_TRUE(client.wakeUp());
  const auto extension = client.extendSandbox(document, "org.p", "org.c");
  ASSERT_TRUE(extension) << extension.error().text();
  EXPECT_EQ(extension->token, "t1");
  EXPECT_EQ(extension->siblingURL, "file:///storage/.a%20b.txt");
  EXPECT_EQ(extension->siblingToken, "t2");
  EXPECT_TRUE(client.providePlaceholder(document, "org.p", "org.c"));
  EXPECT_TRUE(client.startProviding(document, "org.p", "org.c"));
  EXPECT_TRUE(client.stopProviding(document, "org.p", "org.c"));
  const auto providers = client.providers();
  ASSERT_TRUE(providers) << providers.error().text();
  ASSERT_EQ(providers->size(), 2U);
  EXPECT_EQ((*providers)[0].identifier, "org.p");
  EXPECT_EQ((*providers)[0].documentStorageURL, "file:///storage/");
  EXPECT_EQ((*providers)[1].identifier, "org.q");
  EXPECT_FALSE((*providers)[1].documentStorageURL);
  EXPECT_EQ(client.extendBookmark(document, "org.c").value(), "docsource:p/item");
  EXPECT_EQ(client.bookmarkableString(document).value(), "docsource:p/item");
  const auto resolved = client.resolveBookmark("docsource:p/item");
  ASSERT_TRUE(resolved) << resolved.error().text();
  EXPECT_EQ(resolved->url, document);
  EXPECT_EQ(resolved->extension.token, "t1");
  EXPECT_EQ(resolved->extension.siblingURL, "file:///storage/.a%20b.txt");
  EXPECT_EQ(resolved->extension.siblingToken, "t2");

  const std::string item = std::string(" ") + document;
  EXPECT_EQ(
      daemon->calls(),
      (std::vector<std::string>{
          "wakeUp", "extendSandbox" + item + " org.p org.c", "placeholder" + item + " org.p org.c",
          "start" + item + " org.p org.c", "stop" + item + " org.p org.c", "providers",
          "extendBookmark" + item + " org.c", "bookmark" + item, "resolve docsource:p/item"}));
}

TEST_F(ClientTest, TheFormsWithCallbackAskTheSame) {
  serve();
  Client client(10s);
  Awaited<void> woken, placed, started, stopped;
  Awaited<docsource::SandboxExtension> extended;
  Awaited<std::vector<docsource::ProviderInfo>> listed;
  Awaited<std::string> bookmarked;
  Awaited<std::optional<std::string>> named;
  Awaited<docsource::ResolvedBookmark> resolved;
  client.wakeUp(woken.callback());
  client.extendSandbox(document, "org.p", "org.c", extended.callback());
  client.providePlaceholder(document, "org.p", "org.c", placed.callback());
  client.startProviding(document, "org.p", "org.c", started.callback());
  client.stopProviding(document, "org.p", "org.c", stopped.callback());
  client.providers(listed.callback());
  client.extendBookmark(document, "org.c", bookmarked.callback());
  client.bookmarkableString(document, named.callback());
  client.resolveBookmark("docsource:p/item", resolved.callback());
  EXPECT_TRUE(woken.get());
  EXPECT_EQ(extended.get()->token, "t1");
  EXPECT_TRUE(placed.get());
  EXPECT_TRUE(started.get());
  EXPECT_TRUE(stopped.get());
  EXPECT_TRUE(listed.get().value().empty());
  EXPECT_EQ(bookmarked.get().value(), "docsource:p/item");
  EXPECT_EQ(named.get().value(), "docsource:p/item");
  EXPECT_EQ(resolved.get()->url, document);
  // Without anybody to tell, the call is made all the same.
  client.wakeUp(Client::Callback<void>());
  EXPECT_TRUE(client.wakeUp());
  EXPECT_EQ(daemon->calls().size(), 11U);
}

TEST_F(ClientTest, ErrorsKeepWhatTheySay) {
  serve();
  const qx::Error denied("Org", 7, qx::Error::Info{{"description", "No."}, {"identifier", "x"}});
  daemon->error = DSPluginOperationFailedError(denied);
  Client client(10s);
  const auto check = [](const auto& result) {
    ASSERT_FALSE(result);
    const docsource::Error& error = result.error();
    EXPECT_TRUE(error.is("DSErrorDomain", 8)) << error.text();
    ASSERT_TRUE(error.underlying());
    EXPECT_EQ(error.underlying()->text(), "Org 7: No.");
    EXPECT_EQ(error.underlying()->info("identifier"), "x");
    EXPECT_FALSE(error.isConnectionFailure());
  };
  check(client.extendSandbox(document, "p", "c"));
  check(client.providePlaceholder(document, "p", "c"));
  check(client.startProviding(document, "p", "c"));
  check(client.stopProviding(document, "p", "c"));
  check(client.providers());
  check(client.extendBookmark(document, "c"));
  check(client.bookmarkableString(document));
  check(client.resolveBookmark("s"));

  daemon->error = DSNotFoundErrorURL(qx::URL(document));
  const auto missing = client.startProviding(document, "p", "c");
  EXPECT_EQ(missing.error().info("URL"), document);
  EXPECT_EQ(missing.error().text(), daemon->error->text());
}

TEST_F(ClientTest, AnswersWithoutValueOrErrorAreToldApart) {
  serve();
  daemon->bookmark.reset();
  daemon->url.reset();
  daemon->siblingToken.reset();
  Client client(10s);
  const auto none = client.bookmarkableString(document);
  ASSERT_TRUE(none);
  EXPECT_FALSE(*none);
  EXPECT_TRUE(client.extendBookmark(document, "c").error().is(LibraryError::emptyAnswer));
  EXPECT_TRUE(client.resolveBookmark("s").error().is(LibraryError::emptyAnswer));
  EXPECT_FALSE(client.extendSandbox(document, "p", "c")->siblingToken);
}

TEST_F(ClientTest, WhatIsNotAnsweredTimesOutAndIsOver) {
  serve();
  std::mutex mutex;
  std::vector<qx::Completion<>> unanswered;
  Gate arrived;
  daemon->setOnWakeUp([&](qx::Completion<> completion) {
    {
      const std::lock_guard lock(mutex);
      unanswered.push_back(std::move(completion));
    }
    arrived.pass();
  });
  Client client(10ms);
  EXPECT_TRUE(client.wakeUp().error().is(LibraryError::timedOut));
  EXPECT_TRUE(client.wakeUp(20ms).error().is(LibraryError::timedOut));
  Awaited<void> callback;
  client.wakeUp(callback.callback());
  EXPECT_TRUE(callback.get().error().is(LibraryError::timedOut));

  // Late answers go nowhere, and the connection is none the worse.
  arrived.wait(3);
  daemon->setOnWakeUp(nullptr);
  for (const auto& completion : unanswered) completion();
  EXPECT_TRUE(client.providers(10s));
  EXPECT_TRUE(client.wakeUp(Client::noTimeout));
  EXPECT_EQ(callback.calls(), 1);
}

TEST_F(ClientTest, FindsTheDaemonAgainAfterItWasAway) {
  Client client(10s);
  const auto away = client.wakeUp();
  ASSERT_TRUE(away.error().is(LibraryError::serviceUnavailable)) << away.error().text();
  ASSERT_TRUE(away.error().underlying());
  EXPECT_TRUE(away.error().underlying()->is("QXPOSIXErrorDomain", ENOENT));
  EXPECT_TRUE(away.error().isConnectionFailure());
  Awaited<void> awayToo;
  client.wakeUp(awayToo.callback());
  EXPECT_TRUE(awayToo.get().error().is(LibraryError::serviceUnavailable));

  for (int life = 0; life < 3; ++life) {
    Gate arrived;
    daemon->setOnWakeUp(nullptr);
    serve();
    EXPECT_TRUE(client.wakeUp()) << "life " << life;
    daemon->setOnWakeUp([&](const qx::Completion<>&) { arrived.pass(); });
    Awaited<void> inFlight;
    client.wakeUp(inFlight.callback());
    auto waiting = std::async(std::launch::async, [&] { return client.wakeUp(); });
    arrived.wait(2);
    stopServing();
    const auto lost = inFlight.get();
    EXPECT_TRUE(lost.error().is("QXConduitErrorDomain", 4)) << lost.error().text();
    EXPECT_TRUE(lost.error().isConnectionFailure());
    EXPECT_TRUE(waiting.get().error().is("QXConduitErrorDomain", 4));
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
      const auto second = client.bookmarkableString(document);
      client.providers([&, ok = first.ok() && second.ok()](const auto& third) {
        if (ok && third && client.wakeUp()) ++succeeded;
        done.pass();
      });
    });
  }
  done.wait(count);
  EXPECT_EQ(succeeded, count);
}

TEST_F(ClientTest, GoingAwayFailsTheCallsInFlight) {
  serve();
  Gate arrived;
  daemon->setOnWakeUp([&](const qx::Completion<>&) { arrived.pass(); });
  Awaited<void> inFlight;
  {
    Client client(Client::noTimeout);
    client.wakeUp(inFlight.callback());
    arrived.wait();
  }
  EXPECT_TRUE(inFlight.get().error().is("QXConduitErrorDomain", 4));
}

TEST_F(ClientTest, ATokenIsRedeemedForADescriptorOfOnesOwn) {
  const Serving<QXSandbox> serving(std::string(qx::sandboxServiceName),
                                   std::make_shared<FakeSandbox>());
  const std::string path = sdk::test::root() / "redeemed.txt";
  std::ofstream(path) << "content";
  Client client(10s);
  auto file = client.redeem(path);
  ASSERT_TRUE(file) << file.error().text();
  EXPECT_EQ(contentOf(*file), "content");
  EXPECT_NE(::fcntl(file->get(), F_GETFD) & FD_CLOEXEC, 0);

  Awaited<docsource::Descriptor> awaited;
  client.redeem(path, awaited.callback());
  docsource::Descriptor second = awaited.get().value();
  EXPECT_EQ(contentOf(second), "content");
  const int number = second.get();
  second = std::move(*file);
  EXPECT_EQ(::fcntl(number, F_GETFD), -1) << "what it held before is closed";

  EXPECT_TRUE(client.redeem("/nowhere").error().is("DSErrorDomain", 3));
}

TEST_F(ClientTest, ACoordinatedReadOpensWhatWasProvided) {
  const auto coordination = std::make_shared<FakeCoordination>();
  const Serving<QXFileCoordination> serving(fileCoordinationServiceName, coordination);
  const std::string path = sdk::test::root() / "pro vided.txt";
  const std::string url = docsource::fileURL(path);
  EXPECT_EQ(docsource::pathOfURL(url), path);
  std::string written;
  coordination->onRead = [&](const std::string& asked) -> std::optional<qx::Error> {
    if (asked != url) return std::nullopt;
    std::ofstream(path) << "provided";
    return std::nullopt;
  };
  coordination->onWritten = [&](const std::string& told) {
    written = told;
    return std::optional(DSNotPermittedError());
  };
  Client client(10s);
  const auto file = client.openForReading(url);
  ASSERT_TRUE(file) << file.error().text();
  EXPECT_EQ(contentOf(*file), "provided");
  Awaited<docsource::Descriptor> awaited;
  client.openForReading(url, awaited.callback());
  EXPECT_EQ(contentOf(awaited.get().value()), "provided");
  EXPECT_TRUE(client.finishedWriting(url).error().is("DSErrorDomain", 3));
  EXPECT_EQ(written, url);

  const auto missing = client.openForReading(docsource::fileURL(path + ".no"));
  EXPECT_TRUE(missing.error().is("QXStandardErrorDomain", 260)) << missing.error().text();
  EXPECT_TRUE(client.openForReading("http://h/x").error().is(LibraryError::notAFileURL));
  coordination->onRead = [](const std::string&) { return DSNotPermittedError(); };
  EXPECT_TRUE(client.openForReading(url).error().is("DSErrorDomain", 3));
  EXPECT_TRUE(client.coordinateReading(url).error().is("DSErrorDomain", 3));
}

}  // namespace
