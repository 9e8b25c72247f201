// docsourced and platformd together: coordinated reads and writes reach the providers, and either
// may come and go.

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

const char* const app = "com.example.app";

class Coordination : public Broker {
 protected:
  std::string read(const URL& url) {
    return consumer_.connect(coordinationService).call(coordinateReading, {url}).outcome();
  }
  std::string content(const std::string& name) const { return contentOf(provider_.document(name)); }
  /// Reads until the provider is known to the service: nobody tells the test when it is.
  bool isCoordinated(const std::string& name) {
    return eventually(
        [&] { return read(provider_.url(name)) == "success" && !content(name).empty(); });
  }

  ScriptedProvider provider_ = installation_.installProvider("com.example.p");
  Consumer consumer_ = readerAndWriter();
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

}  // namespace
}  // namespace qx::test
