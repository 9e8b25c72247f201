// How the daemon comes up and goes down: with the device unlocked or not, beside another one, after
// one that died.

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

const char* const notUnlocked = "[INFO] Not instantiating doc sources until first unlock.";

class StartUp : public Broker {
 protected:
  void writeKeyState(int lockState, int unlockedSinceBoot) {
    std::ofstream(installation_ / "run/key-state.new")
        << "lock-state=" << lockState << " unlocked-since-boot=" << unlockedSinceBoot << "\n";
    std::filesystem::rename(installation_ / "run/key-state.new", installation_ / "run/key-state");
  }
  void postFirstUnlock() {
    std::ofstream(installation_ / "run/notify/com.veltro.mobile.lockwardd.first_unlock").flush();
  }
};

TEST_F(StartUp, ServesNobodyBeforeTheProvidersAreRegistered) {
  auto provider = installation_.installProvider("com.example.p", {{vendorSetUp, "hold"}});
  const auto consumer = readerAndWriter();
  launch();
  ASSERT_TRUE(eventually([&] { return provider.calls(vendorSetUp) == 1; }));
  // Who connects now waits for it.
  Wire early = consumer.connect();
  const auto call = early.begin(listProviders, {});
  provider.behave({});
  const auto listing = early.answer(call);
  EXPECT_TRUE(daemon_->logs("[INFO] New connection accepted."));
  EXPECT_EQ(daemon_->count("[INFO] Registered doc source extension com.example.p for path file://"),
            1U);
  ASSERT_EQ(listing.outcome(), "success");
  EXPECT_TRUE(find(*listing.at<Dictionary>(1), "com.example.p"));
  const auto lines = daemon_->log().all();
  const auto line = [&](std::string_view part) {
    return std::find_if(lines.begin(), lines.end(),
                        [part](const auto& each) { return each.find(part) != std::string::npos; });
  };
  EXPECT_LT(line("[INFO] Registered doc source"), line("[INFO] New connection accepted."));
  EXPECT_EQ(daemon_->count(notUnlocked), 0U);
}

TEST_F(StartUp, CountsTheDeviceAsUnlockedByEitherSign) {
  const auto provider = installation_.installProvider("com.example.p");
  for (auto [lockState, unlocked] : {std::pair(3, 0), std::pair(1, 1)}) {
    writeKeyState(lockState, unlocked);
    start();
    EXPECT_TRUE(isRegistered(provider));
    EXPECT_EQ(daemon_->count(notUnlocked), 0U);
    stop();
  }
}

TEST_F(StartUp, GetsProvidersAndGrantsWithTheFirstUnlock) {
  const auto provider = installation_.installProvider("com.example.p");
  const auto consumer = readerAndWriter();
  writeKeyState(1, 0);
  start();
  EXPECT_TRUE(daemon_->logs(notUnlocked));
  Wire wire = consumer.connect();
  EXPECT_EQ(wire.call(listProviders, {}).values, (Array{Value(), Dictionary()}));
  EXPECT_EQ(provider.processes().size(), 0U);
  const Array string{"docsource:com.example.p/item/a"};
  EXPECT_EQ(wire.call(documentURL, string).outcome(), "DSErrorDomain 3");

  // The file becomes readable with the unlock.
  writeList(
      installation_.accessControlFile(),
      Dictionary{{"com.example.p", Dictionary{{"com.example.app",
                                               Dictionary{{"AllowedItemIDs", Array{"item/a"}}}}}}});
  writeKeyState(3, 1);
  postFirstUnlock();
  ASSERT_TRUE(isRegistered(provider));
  EXPECT_TRUE(daemon_->logs("[INFO] Successfully read access control from disk."));
  EXPECT_TRUE(eventually([&] { return wire.call(documentURL, string).outcome() == "success"; }));
  EXPECT_EQ(wire.call(startProviding, {provider.url("A.txt"), "com.example.p", "com.example.app"})
                .outcome(),
            "success");

  // Unlocked once more: the file is read again, the providers stay.
  postFirstUnlock();
  EXPECT_TRUE(daemon_->logs("[INFO] Successfully read access control from disk.", 2));
  EXPECT_EQ(wire.call(documentURL, string).outcome(), "success");
  EXPECT_EQ(daemon_->count("[INFO] Registered doc source extension"), 1U);
  EXPECT_EQ(provider.processes().size(), 1U);
}

TEST_F(StartUp, LeavesTheRootToTheDaemonThatHasIt) {
  const auto consumer = readerAndWriter();
  for (const auto& [program, service] :
       {std::pair("docsourced", docSourceService), std::pair("platformd", coordinationService)}) {
    Daemon first(program, installation_.root());
    ASSERT_TRUE(installation_.becomesServed(service)) << program;
    Wire wire = consumer.connect(service);
    Daemon second(program, installation_.root());
    EXPECT_GT(second.wait(), 0) << program;
    EXPECT_TRUE(second.logs("already running under " + installation_.root())) << program;
    EXPECT_EQ(wire.call("no such operation", {}).outcome(), "failure QXConduitErrorDomain 1");
    EXPECT_TRUE(installation_.becomesServed(service)) << program;
    EXPECT_EQ(first.end(SIGTERM), 0) << program;
  }
}

TEST_F(StartUp, TakesTheSocketOfTheServiceManager) {
  const auto path = installation_ / "run/com.veltro.DocSource";
  const auto socket = listenAt(path);
  constexpr int outOfTheWay = 20;
  const FileDescriptor inherited(fcntl(socket.get(), F_DUPFD, outOfTheWay));
  ChildProcess daemon({"env", "DOCSOURCE_ROOT=" + installation_.root(), "bash", "-c",
                       "exec 3<&2 4<&" + std::to_string(inherited.get()) +
                           "; LISTEN_PID=$$ LISTEN_FDS=2 LISTEN_FDNAMES=other:" + docSourceService +
                           " exec " + builtProgram("docsourced")});
  EXPECT_TRUE(installation_.becomesServed(docSourceService));
  EXPECT_EQ(kill(daemon.id(), SIGTERM), 0);
  EXPECT_EQ(daemon.wait(), 0);
  EXPECT_TRUE(std::filesystem::is_socket(path)) << "it is not the program's to remove";
}

TEST_F(StartUp, EndsWithItsExtensionsAndClients) {
  const auto gentle = installation_.installProvider("com.example.gentle");
  const auto stubborn =
      installation_.installProvider("com.example.stubborn", {{"launch", "stubborn"}});
  const auto consumer = readerAndWriter();
  start();
  const pid_t process = stubborn.running();
  ASSERT_GT(process, 0);
  ASSERT_GT(gentle.running(), 0);
  Wire wire = consumer.connect();
  stop();
  EXPECT_TRUE(wire.isClosedByPeer());
  EXPECT_EQ(gentle.running(), -1);
  EXPECT_EQ(stubborn.running(), -1);
  EXPECT_FALSE(consumer.tryConnect(docSourceService));
  EXPECT_TRUE(daemon_->logs("was ended by signal 9"));

  installation_.remove(stubborn.bundle());
  start();
  EXPECT_EQ(daemon_->end(SIGINT), 0);
}

TEST(StartUpFarBelow, WorksWhereNoSocketAddressReaches) {
  Installation installation(std::string(120, 'd') + "/" + std::string(120, 'e'));
  const auto provider = installation.installProvider("com.example.p");
  const auto consumer = installation.installConsumer("com.example.app", {{writeEntitlement, true}});
  Daemon platform("platformd", installation.root());
  Daemon daemon("docsourced", installation.root());
  ASSERT_TRUE(installation.becomesServed(docSourceService));
  const auto answer = consumer.connect().call(
      extendSandbox, {provider.url("A.txt"), "com.example.p", "com.example.app"});
  EXPECT_EQ(answer.outcome(), "success");
  ASSERT_TRUE(answer.at<Bytes>(1));
  ASSERT_TRUE(installation.becomesServed(sandboxService));
  EXPECT_EQ(
      consumer.connect(sandboxService).call(consumeExtension, {*answer.at<Bytes>(1)}).outcome(),
      "success");
}

}  // namespace
}  // namespace qx::test
