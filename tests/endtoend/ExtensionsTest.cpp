// Provider extensions that come, change, go, and misbehave.

#include <sys/resource.h>

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

const char* const app = "com.example.app";

class Extensions : public Broker {
 protected:
  std::string startDocument(Wire& wire, const ScriptedProvider& provider) {
    return wire.call(startProviding, {provider.url("A.txt"), provider.identifier(), app}).outcome();
  }
  std::string grantDocument(Wire& wire, const ScriptedProvider& provider) {
    return wire.call(extendSandbox, {provider.url("A.txt"), provider.identifier(), app}).outcome();
  }
  static Dictionary listing(Wire& wire) {
    auto answer = wire.call(listProviders, {});
    const auto* dictionary = answer.at<Dictionary>(1);
    return dictionary ? *dictionary : Dictionary();
  }

  Consumer consumer_ = readerAndWriter();
};

TEST_F(Extensions, AreStartedWithNothingButWhatIsTheirs) {
  const auto provider = installation_.installProvider("com.example.p");
  // What the daemon itself inherits must not reach its extensions.
  FileDescriptor inherited(open("/dev/null", O_RDONLY));
  signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = 500;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  // A root relative to the daemon's directory is another place in theirs.
  std::filesystem::current_path("/");
  launch({{"KEPT", "for all"}, {"DOCSOURCE_ROOT", installation_.root().substr(1)}});
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  ASSERT_TRUE(installation_.becomesServed(docSourceService));

  const auto processes = provider.processes();
  ASSERT_EQ(processes.size(), 1U);
  const Dictionary record = processes.begin()->second;
  rlimit theirs{};
  ASSERT_EQ(prlimit(provider.running(), RLIMIT_NOFILE, nullptr, &theirs), 0);
  EXPECT_EQ(theirs.rlim_cur, 500U) << "what the daemon may have is its own";
  EXPECT_EQ(theirs.rlim_max, limit.rlim_max);
  EXPECT_EQ(record.at("blocked"), Value("0000000000000000"));
  EXPECT_EQ(record.at("ignored"), Value("0000000000000000"));
  EXPECT_EQ(record.at("directory"), Value(provider.bundle()));
  EXPECT_EQ(record.at("executable"), Value(provider.bundle() + "/program"));
  EXPECT_EQ(record.at("parent"), Value(static_cast<std::int64_t>(daemon_->id())));

  const auto environment = *record.at("environment").as<Dictionary>();
  EXPECT_EQ(environment.at("QX_EXTENSION_IDENTIFIER"), Value("com.example.p"));
  EXPECT_EQ(environment.at("QX_DOCUMENT_STORAGE"), Value(provider.storage()));
  EXPECT_EQ(environment.at("DOCSOURCE_ROOT"), Value(installation_.root()));
  EXPECT_EQ(environment.at("KEPT"), Value("for all"));
  const std::string connection = *environment.at("QX_EXTENSION_CONNECTION").as<std::string>();

  const auto descriptors = *record.at("descriptors").as<Dictionary>();
  ASSERT_EQ(descriptors.size(), 4U) << describe(descriptors);
  EXPECT_EQ(descriptors.at("0"), Value("/dev/null"));
  EXPECT_TRUE(descriptors.at("1").as<std::string>()->starts_with("pipe:"));
  EXPECT_EQ(descriptors.at("1"), descriptors.at("2"));
  ASSERT_TRUE(descriptors.contains(connection));
  EXPECT_TRUE(descriptors.at(connection).as<std::string>()->starts_with("socket:"));
}

TEST_F(Extensions, ComeChangeAndGoWhileTheDaemonRuns) {
  start();
  Wire wire = consumer_.connect();
  EXPECT_EQ(listing(wire), Dictionary());

  auto provider = installation_.installProvider("com.example.p");
  ASSERT_TRUE(isRegistered(provider));
  EXPECT_EQ(listing(wire).size(), 1U);
  EXPECT_EQ(grantDocument(wire, provider), "success");
  const pid_t first = provider.running();
  ASSERT_GT(first, 0);

  // Another version in its place, with its documents elsewhere.
  provider = installation_.installProvider("com.example.p", {}, "group.new");
  ASSERT_TRUE(isRegistered(provider, 2));
  EXPECT_EQ(*find<Dictionary>(listing(wire), "com.example.p"),
            (Dictionary{{"documentStorageURL", URL::fileURL(provider.storage(), true)},
                        {"providerIdentifier", "com.example.p"}}));
  EXPECT_EQ(startDocument(wire, provider), "success");
  EXPECT_TRUE(eventually([&] { return kill(first, 0) != 0; }));
  EXPECT_GT(provider.running(), 0);

  // Half a bundle is none; made whole it is one.
  const std::string staged = installation_.staging();
  writeList(staged + "/Entitlements.plist", Dictionary());
  std::ofstream(staged + "/Info.plist") << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>";
  installation_.put(staged, installation_ / "Extensions/half.docext");
  EXPECT_TRUE(daemon_->logs("half.docext"));
  EXPECT_EQ(listing(wire).size(), 1U);
  std::filesystem::copy_file(builtProgram("scripted-provider"),
                             installation_ / "Extensions/half.docext/program");
  writeList(installation_ / "Extensions/half.docext/Info.plist",
            Installation::extensionInfo("com.example.half", std::nullopt));
  EXPECT_TRUE(eventually([&] { return listing(wire).size() == 2; }));

  installation_.remove(provider.bundle());
  EXPECT_TRUE(eventually([&] { return !find(listing(wire), "com.example.p"); }));
  EXPECT_EQ(startDocument(wire, provider), "DSErrorDomain 1");
  EXPECT_TRUE(eventually([&] { return provider.running() == -1; }));
}

TEST_F(Extensions, ThatMisbehaveCostTheCallAndNothingElse) {
  struct Misbehaviour {
    std::string how;
    /// What the client gets to a start that the provider meets like that.
    std::string outcome;
    /// Whether the process lives on.
    bool survives;
  };
  const std::string lost = "DSErrorDomain 8 (QXConduitErrorDomain 4)";
  const std::string mismatch = "DSErrorDomain 8 (QXConduitErrorDomain 3)";
  const std::vector<Misbehaviour> cases{{"refuse", lost, true},
                                        {"crash", lost, false},
                                        {"exit", lost, false},
                                        {"garbage", lost, false},
                                        {"wrong types", mismatch, true},
                                        {"wrong class", mismatch, true},
                                        {"failure", "DSErrorDomain 8 (ScriptedProvider 7)", true},
                                        {"twice", "success", true},
                                        {"unknown id", "success", true},
                                        {"calls back", "success", true},
                                        {"absent", "success", true}};
  const auto provider = installation_.installProvider("com.example.p");
  const auto bystander = installation_.installProvider("com.example.q");
  start();
  Wire wire = consumer_.connect();
  ASSERT_EQ(grantDocument(wire, provider), "success");
  ASSERT_EQ(grantDocument(wire, bystander), "success");
  std::size_t processes = 1;
  for (const auto& [how, outcome, survives] : cases) {
    SCOPED_TRACE(how);
    const auto process = std::to_string(provider.running());
    provider.behave({{vendorStart, how}});
    EXPECT_EQ(startDocument(wire, provider), outcome);
    EXPECT_TRUE(how != "garbage" || daemon_->logs("[NOTICE] Closing the connection to PID " +
                                                  process + ": a malformed frame."));
    provider.behave({});
    EXPECT_EQ(startDocument(wire, provider), "success");
    if (!survives) ++processes;
    EXPECT_EQ(provider.processes().size(), processes);
    EXPECT_EQ(startDocument(wire, bystander), "success");
  }
  EXPECT_EQ(bystander.processes().size(), 1U);

  // Killed from outside between two calls, or with one open.
  EXPECT_EQ(kill(provider.running(), SIGKILL), 0);
  EXPECT_TRUE(eventually([&] { return startDocument(wire, provider) == "success"; }));
  const auto starts = provider.calls(vendorStart);
  provider.behave({{vendorStart, "never"}});
  const auto call = wire.begin(startProviding, {provider.url("A.txt"), provider.identifier(), app});
  EXPECT_EQ(startDocument(wire, bystander), "success");
  ASSERT_TRUE(eventually([&] { return provider.calls(vendorStart) == starts + 1; }));
  EXPECT_EQ(kill(provider.running(), SIGKILL), 0);
  EXPECT_EQ(wire.answer(call).outcome(), lost);
  stop();
}

TEST_F(Extensions, CarryThroughWhatAClientAskedThatHasLeft) {
  const auto provider = installation_.installProvider("com.example.p");
  start();
  Wire wire = consumer_.connect();
  ASSERT_EQ(grantDocument(wire, provider), "success");
  provider.behave({{vendorStart, "hold"}});
  {
    Wire leaving = consumer_.connect();
    leaving.begin(startProviding, {provider.url("A.txt"), provider.identifier(), app});
    for (int i = 0; i < 200; ++i) leaving.begin(listProviders, {});
    ASSERT_TRUE(eventually([&] { return provider.calls(vendorStart) == 1; }));
  }
  EXPECT_EQ(listing(wire).size(), 1U);
  provider.behave({});
  EXPECT_TRUE(daemon_->logs("[DEBUG] Successfully provided item at URL " +
                            provider.url("A.txt").absoluteString()));
  EXPECT_EQ(startDocument(wire, provider), "success");

  // A connection that outlives its program is nobody's.
  auto mortal = installation_.installConsumer("com.example.mortal", {{readEntitlement, true}});
  EXPECT_TRUE(
      eventually([&] { return mortal.connect().call(listProviders, {}).outcome() == "success"; }));
  Wire inherited = mortal.connect();
  EXPECT_EQ(inherited.call(wakeUp, {}).outcome(), "success");
  mortal.end();
  EXPECT_EQ(inherited.call(listProviders, {}).outcome(), "DSErrorDomain 6");
  EXPECT_EQ(inherited.call(documentURL, {"docsource:com.example.p/item/a"}).outcome(),
            "DSErrorDomain 3");
}

TEST_F(Extensions, BringContentInForReadersAndHearOfWrites) {
  const auto provider = installation_.installProvider("com.example.p");
  const auto read = [&](const URL& url) {
    return consumer_.connect(coordinationService).call(coordinateReading, {url}).outcome();
  };
  const auto content = [&](const std::string& name) { return contentOf(provider.document(name)); };
  startPlatform();
  start();
  // Until the provider is known to the service: nobody tells the test when it is.
  ASSERT_TRUE(eventually([&] {
    return read(provider.url("A.txt")) == "success" && content("A.txt") == "content of item/a";
  }));
  EXPECT_TRUE(daemon_->logs("[INFO] QXFileCoordinator requested us to provide item at URL " +
                            provider.url("A.txt").absoluteString() + " for consumer " + app));

  Wire wire = consumer_.connect(coordinationService);
  EXPECT_EQ(wire.call(finishedWriting, {provider.url("A.txt")}).outcome(), "success");
  EXPECT_TRUE(eventually([&] { return provider.calls(vendorChanged) == 1; }));
  EXPECT_TRUE(daemon_->logs("was changed by writer ID com.example.app."));

  // Nobody's document is read as it is; a provider's refusal is the reader's.
  std::ofstream(installation_ / "Home/letter").flush();
  EXPECT_EQ(read(URL::fileURL(installation_ / "Home/letter")), "success");
  provider.behave({{vendorStart, "error"}});
  EXPECT_EQ(read(provider.url("B c.txt")), "DSErrorDomain 8 (ScriptedProvider 7)");
  provider.behave({{vendorStart, "crash"}});
  EXPECT_EQ(read(provider.url("B c.txt")), "DSErrorDomain 8 (QXConduitErrorDomain 4)");
  provider.behave({});
  EXPECT_EQ(read(provider.url("B c.txt")), "success");
  EXPECT_EQ(content("B c.txt"), "content of item b");

  installation_.remove(provider.bundle());
  std::filesystem::resize_file(provider.document("A.txt"), 0);
  EXPECT_TRUE(eventually([&] {
    return consumer_.connect().call(listProviders, {}).values == Array{Value(), Dictionary()};
  }));
  EXPECT_TRUE(eventually([&] { return read(provider.url("A.txt")) == "success"; }));
  EXPECT_EQ(content("A.txt"), "");
}

}  // namespace
}  // namespace qx::test
