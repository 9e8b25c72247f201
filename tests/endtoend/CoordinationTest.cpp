// docsourced and platformd together: coordinated reads and writes reach the providers, and either
// may come and go.

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/files/FileManager.h"
#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

const char* const app = "com.example.app";

class Coordination : public Broker {
 protected:
  void startPlatform() {
    platform_.emplace("platformd", installation_.root());
    ASSERT_TRUE(installation_.becomesServed(coordinationService));
    ASSERT_TRUE(installation_.becomesServed(sandboxService));
  }

  std::string read(const URL& url) {
    return consumer_.connect(coordinationService).call(coordinateReading, {url}).outcome();
  }
  std::string content(const std::string& name) const {
    auto text = FileManager::readFile(provider_.document(name));
    return text ? *text : "(unreadable)";
  }
  /// Reads until the provider is known to the service: nobody tells the test when it is.
  bool isCoordinated(const std::string& name) {
    return eventually(
        [&] { return read(provider_.url(name)) == "success" && !content(name).empty(); });
  }

  ScriptedProvider provider_ = installation_.installProvider("com.example.p");
  Consumer consumer_ = readerAndWriter();
  std::optional<Daemon> platform_;
};

TEST_F(Coordination, BringsContentInBeforeAReadAndReportsAWrite) {
  startPlatform();
  start();
  ASSERT_TRUE(isCoordinated("A.txt"));
  EXPECT_EQ(content("A.txt"), "content of item/a");
  EXPECT_TRUE(daemon_->logs("[INFO] QXFileCoordinator requested us to provide item at URL " +
                            provider_.url("A.txt").absoluteString() + " for consumer " + app));

  Wire wire = consumer_.connect(coordinationService);
  EXPECT_EQ(wire.call(finishedWriting, {provider_.url("A.txt")}).outcome(), "success");
  EXPECT_TRUE(eventually([&] { return provider_.calls(vendorChanged) == 1; }));
  EXPECT_TRUE(daemon_->logs("was changed by writer ID com.example.app."));

  // Nobody's document is read as it is; a provider's refusal is the reader's.
  std::ofstream(installation_ / "Home/letter").flush();
  EXPECT_EQ(read(URL::fileURL(installation_ / "Home/letter")), "success");
  provider_.behave({{vendorStart, "error"}});
  EXPECT_EQ(read(provider_.url("B c.txt")), "DSErrorDomain 8 (ScriptedProvider 7)");
  provider_.behave({{vendorStart, "crash"}});
  EXPECT_EQ(read(provider_.url("B c.txt")), "DSErrorDomain 8 (QXConduitErrorDomain 4)");
  provider_.behave({});
  EXPECT_EQ(read(provider_.url("B c.txt")), "success");
  EXPECT_EQ(content("B c.txt"), "content of item b");

  installation_.remove(provider_.bundle());
  std::filesystem::resize_file(provider_.document("A.txt"), 0);
  EXPECT_TRUE(eventually([&] {
    return consumer_.connect().call(listProviders, {}).values == Array{Value(), Dictionary()};
  }));
  EXPECT_TRUE(eventually([&] { return read(provider_.url("A.txt")) == "success"; }));
  EXPECT_EQ(content("A.txt"), "");
}

TEST_F(Coordination, StandsAgainWhenEitherSideComesBack) {
  start();
  EXPECT_TRUE(isRegistered(provider_));
  Wire broker = consumer_.connect();
  EXPECT_EQ(broker.call(listProviders, {}).outcome(), "success");

  // The service comes later, and goes and comes again while the daemon stays.
  startPlatform();
  EXPECT_TRUE(isCoordinated("A.txt"));
  EXPECT_EQ(platform_->end(SIGKILL), -SIGKILL);
  // Its worker, where it has one, serves a moment longer.
  ASSERT_TRUE(installation_.becomesUnserved(coordinationService));
  EXPECT_EQ(broker.call(listProviders, {}).outcome(), "success");
  std::filesystem::resize_file(provider_.document("A.txt"), 0);
  startPlatform();
  EXPECT_TRUE(isCoordinated("A.txt"));

  // The daemon goes, asked to or not: its doc sources are forgotten, its clients get the news.
  std::ptrdiff_t asked = 0;
  for (const int signal : {SIGTERM, SIGKILL}) {
    Wire reader = consumer_.connect(coordinationService);
    Wire client = consumer_.connect();
    provider_.behave({{vendorStart, "never"}});
    const auto pending = reader.begin(coordinateReading, {provider_.url("B c.txt")});
    const auto call = client.begin(stopProviding, {provider_.url("A.txt"), "com.example.p", app});
    EXPECT_EQ(client.answer(call).outcome(), "success");
    ++asked;
    ASSERT_TRUE(eventually([&] {
      const auto lines = provider_.callLines();
      return asked == std::count_if(lines.begin(), lines.end(), [](const auto& line) {
               return line.starts_with(vendorStart) && line.ends_with("B%20c.txt");
             });
    }));
    EXPECT_EQ(daemon_->end(signal), signal == SIGTERM ? 0 : -SIGKILL);
    EXPECT_EQ(reader.answer(pending).error()->domain(), "QXConduitErrorDomain");
    EXPECT_TRUE(client.isClosedByPeer());
    std::filesystem::resize_file(provider_.document("A.txt"), 0);
    EXPECT_EQ(read(provider_.url("A.txt")), "success");
    EXPECT_EQ(content("A.txt"), "");

    provider_.behave({});
    start();
    EXPECT_TRUE(isCoordinated("A.txt"));
  }
  EXPECT_EQ(consumer_.connect().call(listProviders, {}).outcome(), "success");
  stop();
  EXPECT_EQ(platform_->end(SIGTERM), 0);
}

}  // namespace
}  // namespace qx::test
