// What a client gets from the operations, and what the daemon takes it for.

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

const char* const provider = "com.example.provider";
const char* const app = "com.example.app";
const char* const friendly = "com.example.friend";

class Operations : public Broker {
 protected:
  void SetUp() override {
    start();
    wire_ = consumer_.connect();
  }

  std::string outcome(const std::string& operation, Array arguments) {
    return wire_.call(operation, std::move(arguments)).outcome();
  }

  ScriptedProvider provider_ = installation_.installProvider(provider);
  Consumer consumer_ = readerAndWriter(app);
  Wire wire_{FileDescriptor()};
  const URL a_ = provider_.url("A.txt");
};

TEST_F(Operations, FollowTheBundleOfAClientThatStaysConnected) {
  EXPECT_EQ(outcome(listProviders, {}), "success");
  const std::string entitlements =
      installation_ / ("Applications/" + std::string(app) + ".app/Entitlements.plist");
  writeList(entitlements, Dictionary{{readEntitlement, false}});
  EXPECT_TRUE(eventually([&] { return outcome(listProviders, {}) == "DSErrorDomain 6"; }));
  writeList(entitlements, Dictionary{{readEntitlement, true}});
  EXPECT_TRUE(eventually([&] { return outcome(listProviders, {}) == "success"; }));
  EXPECT_EQ(outcome(extendSandbox, {a_, provider, friendly}), "DSErrorDomain 6");

  // The bundle put in its place has another executable: the process that runs is not of it.
  const auto successor = readerAndWriter(app);
  EXPECT_TRUE(eventually([&] { return outcome(listProviders, {}) == "DSErrorDomain 6"; }));
  EXPECT_TRUE(eventually(
      [&] { return successor.connect().call(listProviders, {}).outcome() == "success"; }));
}

TEST_F(Operations, AreCarriedThroughWhenTheClientLeaves) {
  const Array document{a_, provider, app};
  ASSERT_EQ(outcome(extendSandbox, document), "success");
  provider_.behave({{vendorStart, "hold"}});
  {
    Wire leaving = consumer_.connect();
    leaving.begin(startProviding, document);
    for (int i = 0; i < 200; ++i) leaving.begin(listProviders, {});
    ASSERT_TRUE(eventually([&] { return provider_.calls(vendorStart) == 1; }));
  }
  EXPECT_EQ(outcome(listProviders, {}), "success");
  provider_.behave({});
  EXPECT_TRUE(daemon_->logs("[DEBUG] Successfully provided item at URL " + a_.absoluteString()));
  EXPECT_EQ(outcome(startProviding, document), "success");

  // A connection that outlives its program is nobody's.
  auto mortal = installation_.installConsumer("com.example.mortal", {{readEntitlement, true}});
  EXPECT_TRUE(
      eventually([&] { return mortal.connect().call(listProviders, {}).outcome() == "success"; }));
  Wire inherited = mortal.connect();
  EXPECT_EQ(inherited.call(wakeUp, {}).outcome(), "success");
  mortal.end();
  EXPECT_EQ(inherited.call(listProviders, {}).outcome(), "DSErrorDomain 6");
  EXPECT_EQ(inherited.call(documentURL, {"docsource:com.example.provider/item/a"}).outcome(),
            "DSErrorDomain 3");
}

}  // namespace
}  // namespace qx::test
