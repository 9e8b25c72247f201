#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "acl/DSAccessControlStore.h"
#include "daemon/DSServer.h"
#include "platform/device/KeyState.h"
#include "platform/extension/ExtensionHost.h"
#include "platform/notify/SystemNotifyCenter.h"
#include "providers/DSExtensionDocSource.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SelfClient.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx::test;

constexpr auto firstUnlock = "com.veltro.mobile.lockwardd.first_unlock";
constexpr auto notInstantiating = "[INFO] Not instantiating doc sources until first unlock.";

/// With one provider, whose set-up ends when the test says so.
class ServerTest : public testing::Test {
 protected:
  ServerTest() {
    temporaryRoot();
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
  }
  void SetUp() override {
    server->setAccessControlStore(DSAccessControlStore::sharedStore());
    provider = std::make_unique<ProviderBundle>("A");
    provider->addPipe("setup");
    provider->install();
    LogCapture::mailbox().take();
  }
  void TearDown() override { qx::ExtensionHost::shared().shutdown(); }

  static void setState(int lockState, bool unlockedSinceBoot) {
    EXPECT_FALSE(qx::writeKeyState({lockState, unlockedSinceBoot}));
  }
  void start() {
    server->startCompletion([done = done] { done->put(std::this_thread::get_id()); });
  }
  /// A client's connection, which may be accepted only later.
  static std::shared_ptr<QXConduitConnection> connect(std::function<void()> whenEnded = nullptr) {
    auto connection = QXConduitConnection::connectToService(dsDaemonServiceName);
    if (!connection) return nullptr;
    (*connection)->setRemoteObjectInterface(dsDaemonInterface());
    (*connection)->setInvalidationHandler(std::move(whenEnded));
    (*connection)->resume();
    return *connection;
  }
  static std::shared_ptr<DSDaemon> proxy(const std::shared_ptr<QXConduitConnection>& connection) {
    return connection->remoteObjectProxyWithErrorHandler<DSDaemon>(
        [](const qx::Error& error) { ADD_FAILURE() << error.text(); });
  }
  static std::size_t providerCount() { return DSExtensionDocSource::providersInfo().size(); }
  static std::size_t acceptedCount() {
    return LogCapture::count("[INFO] New connection accepted.");
  }

  LogCapture log;
  std::unique_ptr<ProviderBundle> provider;
  std::shared_ptr<DSServer> server = std::make_shared<DSServer>();
  std::shared_ptr<Mailbox<std::thread::id>> done = std::make_shared<Mailbox<std::thread::id>>();
};

/// Lock state, whether unlocked since boot.
class UnlockedServerTest : public ServerTest,
                           public testing::WithParamInterface<std::pair<int, bool>> {};

TEST_P(UnlockedServerTest, AcceptsWhenTheInstancesAreRegistered) {
  setState(GetParam().first, GetParam().second);
  start();
  const auto client = connect();
  ASSERT_TRUE(client);
  Mailbox<bool> awake;
  proxy(client)->wakeUpCompletion([&] { awake.put(true); });
  // The provider is at its set-up, the client waits.
  provider->endSetup("ok");
  EXPECT_TRUE(done->waitForCount(1));
  EXPECT_TRUE(awake.waitForCount(1));
  const auto lines = LogCapture::mailbox().all();
  const auto at = [&](const std::string& start) {
    return std::find_if(lines.begin(), lines.end(),
                        [&](const std::string& line) { return line.starts_with(start); }) -
           lines.begin();
  };
  EXPECT_EQ(at("[INFO] Server starting."), 0);
  EXPECT_LT(at("[INFO] Registered doc source extension A"), at("[INFO] New connection accepted."));
  EXPECT_EQ(log.count(notInstantiating), 0U);
  EXPECT_NE(done->all().front(), std::this_thread::get_id());

  // Another unlock changes nothing.
  static Mailbox<bool> unlocked;
  qx::SystemNotifyCenter::addObserver(firstUnlock, [] { unlocked.put(true); });
  EXPECT_FALSE(qx::SystemNotifyCenter::post(firstUnlock));
  EXPECT_TRUE(unlocked.waitForCount(1));
  EXPECT_EQ(providerCount(), 1U);
  EXPECT_EQ(done->all().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(States, UnlockedServerTest,
                         testing::Values(std::pair(3, false), std::pair(3, true),
                                         std::pair(0, true), std::pair(1, true)));

TEST_F(ServerTest, BeforeTheFirstUnlockItServesWithoutProviders) {
  setState(1, false);
  start();
  EXPECT_TRUE(done->waitForCount(1));
  EXPECT_NE(done->all().front(), std::this_thread::get_id());
  const auto lines = LogCapture::mailbox().all();
  EXPECT_EQ(lines[0], "[INFO] Server starting.");
  EXPECT_EQ(lines[1], notInstantiating);
  beApplication("com.example.self", {{"com.veltro.docsource.acl-read", true}});
  const auto client = connect();
  const auto list = [&] {
    Mailbox<std::size_t> sizes;
    proxy(client)->providersCompletionHandler([&](const auto& error, const auto& listing) {
      EXPECT_FALSE(error);
      sizes.put(listing ? listing->size() : 99);
    });
    return sizes.waitForCount(1) ? sizes.all().front() : 99;
  };
  EXPECT_EQ(list(), 0U);

  setState(3, true);
  EXPECT_FALSE(qx::SystemNotifyCenter::post(firstUnlock));
  provider->endSetup("ok");
  EXPECT_EQ(list(), 1U);
  EXPECT_EQ(done->all().size(), 1U);
}

TEST_F(ServerTest, WithoutACompletionItServesAllTheSame) {
  setState(0, false);
  server->startCompletion(nullptr);
  Mailbox<bool> awake;
  const auto client = connect();
  proxy(client)->wakeUpCompletion([&] { awake.put(true); });
  EXPECT_TRUE(awake.waitForCount(1));
  EXPECT_EQ(server->listenerDelegate()->server(), server);
}

TEST_F(ServerTest, ClientsAreVettedByOperationAndEachHasItsServicer) {
  setState(0, false);
  beNobody();
  start();
  Mailbox<bool> ended;
  const auto one = connect(), two = connect([&] { ended.put(true); });
  Mailbox<std::string> answers;
  proxy(one)->providersCompletionHandler([&](const auto& error, const auto& listing) {
    answers.put(error && !listing ? std::to_string(error->code()) : "listing");
  });
  EXPECT_TRUE(answers.waitFor("6"));
  one->invalidate();
  proxy(two)->wakeUpCompletion([&] { answers.put("awake"); });
  EXPECT_TRUE(answers.waitFor("awake"));
  EXPECT_EQ(acceptedCount(), 2U);

  // The server goes, its clients' connections with it.
  server.reset();
  EXPECT_TRUE(ended.waitForCount(1));
}

}  // namespace
