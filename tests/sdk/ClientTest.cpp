// The consumer's library against services that the test plays over real sockets.

#include "docsource/client.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <map>
#include <memory>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "tests/support/FakeService.h"
#include "tests/support/Gate.h"
#include "tests/support/Operations.h"
#include "tests/support/TemporaryRoot.h"

namespace qx::test {
namespace {

using docsource::Client;
using docsource::LibraryError;
template <class T>
using Answer = docsource::Result<T>;
using namespace std::chrono_literals;

const Value absent;
constexpr const char* document = "file:///storage/a%20b.txt";

/// With a daemon that notes each call and answers what `answers` says, nothing where it says
/// nothing.
class ClientTest : public testing::Test {
 protected:
  ClientTest() { temporaryRoot(); }

  void serve() {
    service_.emplace(docSourceService, [this](const std::string& operation, const Array& with) {
      const std::lock_guard lock(mutex_);
      calls_.push_back(operation + " " + describe(with));
      arrived.pass();
      const auto found = answers.find(operation);
      return found == answers.end() ? std::nullopt : std::optional(found->second);
    });
  }
  FakeService& service() { return *service_; }
  void stopServing() { service_.reset(); }
  std::vector<std::string> calls() {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

  const Array tokens{Bytes{'t', '1'}, URL("file:///storage/.a%20b.txt"), Bytes{'t', '2'}};
  std::map<std::string, Array> answers{
      {wakeUp, {}},
      {extendSandbox, {absent, tokens[0], tokens[1], tokens[2]}},
      {providePlaceholder, {absent}},
      {startProviding, {absent}},
      {stopProviding, {absent}},
      {listProviders,
       {absent, Dictionary{{"p", Dictionary{{"providerIdentifier", "org.p"},
                                            {"documentStorageURL", URL("file:///storage/")}}},
                           {"q", Dictionary{{"providerIdentifier", "org.q"}}}}}},
      {extendBookmark, {"docsource:p/item", absent}},
      {bookmarkableString, {"docsource:p/item", absent}},
      {documentURL, {URL(document), tokens[0], tokens[1], tokens[2], absent}}};
  Gate arrived;

 private:
  std::mutex mutex_;
  std::vector<std::string> calls_;
  std::optional<FakeService> service_;
};

/// A callback whose result the test waits for, and that notices a second call.
template <class T>
class Awaited {
 public:
  Client::Callback<T> callback() {
    return [this](Answer<T> result) {
      if (calls_++ == 0) promise_.set_value(std::move(result));
    };
  }
  Answer<T> get() { return promise_.get_future().get(); }
  int calls() const { return calls_; }

 private:
  std::promise<Answer<T>> promise_;
  std::atomic<int> calls_ = 0;
};

/// The result of a form with a callback.
template <class T, class Call>
Answer<T> through(Call call) {
  Awaited<T> awaited;
  call(awaited.callback());
  return awaited.get();
}

TEST_F(ClientTest, EveryOperationCarriesItsArgumentsAndItsAnswer) {
  serve();
  Client client(10s);
  const auto extension = through<docsource::SandboxExtension>(
      [&](auto done) { client.extendSandbox(document, "org.p", "org.c", done); });
  ASSERT_TRUE(extension) << extension.error().text();
  EXPECT_EQ(extension->token, "t1");
  EXPECT_EQ(extension->siblingURL, "file:///storage/.a%20b.txt");
  EXPECT_EQ(extension->siblingToken, "t2");
  EXPECT_TRUE(through<void>(
      [&](auto done) { client.providePlaceholder(document, "org.p", "org.c", done); }));
  EXPECT_TRUE(
      through<void>([&](auto done) { client.startProviding(document, "org.p", "org.c", done); }));
  EXPECT_TRUE(
      through<void>([&](auto done) { client.stopProviding(document, "org.p", "org.c", done); }));
  const auto providers =
      through<std::vector<docsource::ProviderInfo>>([&](auto done) { client.providers(done); });
  ASSERT_TRUE(providers && providers->size() == 2);
  EXPECT_EQ((*providers)[0].identifier, "org.p");
  EXPECT_EQ((*providers)[0].documentStorageURL, "file:///storage/");
  EXPECT_EQ((*providers)[1].identifier, "org.q");
  EXPECT_FALSE((*providers)[1].documentStorageURL);
  EXPECT_EQ(
      *through<std::string>([&](auto done) { client.extendBookmark(document, "org.c", done); }),
      "docsource:p/item");
  EXPECT_EQ(*through<std::optional<std::string>>(
                [&](auto done) { client.bookmarkableString(document, done); }),
            "docsource:p/item");
  const auto resolved = through<docsource::ResolvedBookmark>(
      [&](auto done) { client.resolveBookmark("docsource:p/item", done); });
  ASSERT_TRUE(resolved) << resolved.error().text();
  EXPECT_EQ(resolved->url, document);
  EXPECT_EQ(resolved->extension.token, "t1");
  EXPECT_EQ(resolved->extension.siblingURL, "file:///storage/.a%20b.txt");
  EXPECT_EQ(resolved->extension.siblingToken, "t2");
  // Without anybody to tell, the call is made all the same.
  client.wakeUp(Client::Callback<void>());
  EXPECT_TRUE(client.wakeUp());

  const std::string item = std::string(" (") + document, both = item + ", org.p, org.c)";
  EXPECT_EQ(calls(), (std::vector<std::string>{
                         extendSandbox + both, providePlaceholder + both, startProviding + both,
                         stopProviding + both, listProviders + std::string(" ()"),
                         extendBookmark + item + ", org.c)", bookmarkableString + item + ")",
                         documentURL + std::string(" (docsource:p/item)"),
                         wakeUp + std::string(" ()"), wakeUp + std::string(" ()")}));
}

TEST_F(ClientTest, ErrorsKeepWhatTheySay) {
  const Error denied("Org", 7, Error::Info{{"description", "No."}, {"URL", URL(document)}});
  for (auto& [operation, values] : answers) {
    if (values.empty()) continue;
    // Before the values, but for the operations of bookmarks.
    const bool comesLast = operation.find("ookmark") != std::string::npos;
    values.assign(values.size(), absent);
    (comesLast ? values.back() : values.front()) = *DSPluginOperationFailedError(denied);
  }
  serve();
  Client client(10s);
  const auto check = [](const auto& result) {
    ASSERT_FALSE(result);
    const docsource::Error& error = result.error();
    EXPECT_TRUE(error.is("DSErrorDomain", 8)) << error.text();
    ASSERT_TRUE(error.underlying());
    EXPECT_EQ(error.underlying()->text(), "Org 7: No.");
    EXPECT_EQ(error.underlying()->info("URL"), document);
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

  // Without an error and a value they are told apart.
  stopServing();
  for (auto& [operation, values] : answers) values.assign(values.size(), absent);
  serve();
  const auto none = client.bookmarkableString(document);
  ASSERT_TRUE(none);
  EXPECT_FALSE(*none);
  EXPECT_TRUE(client.extendBookmark(document, "c").error().is(LibraryError::emptyAnswer));
  EXPECT_TRUE(client.resolveBookmark("s").error().is(LibraryError::emptyAnswer));
  EXPECT_TRUE(client.providers().error().is(LibraryError::emptyAnswer));
  EXPECT_FALSE(client.extendSandbox(document, "p", "c")->siblingToken);
}

TEST_F(ClientTest, WhatIsNotAnsweredTimesOutAndIsOver) {
  answers.erase(wakeUp);
  serve();
  Client client(10ms);
  EXPECT_TRUE(client.wakeUp().error().is(LibraryError::timedOut));
  EXPECT_TRUE(client.wakeUp(20ms).error().is(LibraryError::timedOut));
  Awaited<void> callback;
  client.wakeUp(callback.callback());
  EXPECT_TRUE(callback.get().error().is(LibraryError::timedOut));

  // Late answers go nowhere, and the connection is none the worse.
  arrived.wait(3);
  service().answerLate();
  EXPECT_TRUE(client.providers(10s));
  EXPECT_TRUE(client.bookmarkableString(document, Client::noTimeout));
  EXPECT_EQ(callback.calls(), 1);
  // Going away fails what is in flight.
  Awaited<void> inFlight;
  {
    Client leaving(Client::noTimeout);
    leaving.wakeUp(inFlight.callback());
    arrived.wait(6);
  }
  EXPECT_TRUE(inFlight.get().error().is("QXConduitErrorDomain", 4));
}

TEST_F(ClientTest, FindsTheDaemonAgainAfterItWasAway) {
  Client client(10s);
  const auto away = client.wakeUp();
  ASSERT_TRUE(away.error().is(LibraryError::serviceUnavailable)) << away.error().text();
  ASSERT_TRUE(away.error().underlying());
  EXPECT_TRUE(away.error().underlying()->is("QXPOSIXErrorDomain", ENOENT));
  EXPECT_TRUE(away.error().isConnectionFailure());

  answers.erase(wakeUp);
  for (std::size_t life = 1; life <= 3; ++life) {
    serve();
    EXPECT_TRUE(client.providers()) << "life " << life;
    Awaited<void> inFlight;
    client.wakeUp(inFlight.callback());
    auto waiting = std::async(std::launch::async, [&] { return client.wakeUp(); });
    arrived.wait(3 * life);
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
    client.wakeUp([&](const Answer<void>& first) {
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

TEST_F(ClientTest, ACoordinatedReadOpensWhatWasProvided) {
  const std::string path = temporaryRoot() + "/pro vided.txt";
  const std::string url = docsource::fileURL(path);
  EXPECT_EQ(docsource::pathOfURL(url), path);
  std::atomic<bool> refuses = false;
  const FakeService coordination(coordinationService,
                                 [&](const std::string& operation, const Array& with) {
                                   if (operation == coordinateReading && with == Array{URL(url)}) {
                                     std::ofstream(path) << "provided";
                                   }
                                   return Array{refuses ? Value(DSNotPermittedError()) : absent};
                                 });
  Client client(10s);
  auto file = through<docsource::Descriptor>([&](auto done) { client.openForReading(url, done); });
  ASSERT_TRUE(file) << file.error().text();
  EXPECT_EQ(*FileManager::readFile("/proc/self/fd/" + std::to_string(file->get())), "provided");
  EXPECT_NE(::fcntl(file->get(), F_GETFD) & FD_CLOEXEC, 0);
  auto second = client.openForReading(url).value();
  const int number = second.get();
  second = std::move(*file);
  EXPECT_EQ(::fcntl(number, F_GETFD), -1) << "what it held before is closed";
  EXPECT_TRUE(client.finishedWriting(url));
  EXPECT_TRUE(client.openForReading(docsource::fileURL(path + ".no"))
                  .error()
                  .is("QXStandardErrorDomain", 260));
  EXPECT_TRUE(client.openForReading("http://h/x").error().is(LibraryError::notAFileURL));
  refuses = true;
  EXPECT_TRUE(client.openForReading(url).error().is("DSErrorDomain", 3));
  EXPECT_TRUE(client.coordinateReading(url).error().is("DSErrorDomain", 3));
  EXPECT_TRUE(client.finishedWriting(url).error().is("DSErrorDomain", 3));
}

}  // namespace
}  // namespace qx::test
