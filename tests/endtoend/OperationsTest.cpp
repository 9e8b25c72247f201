// What a client gets from the operations, and what the daemon takes it for.

#include <filesystem>
#include <fstream>

#include "platform/files/FileManager.h"
#include "platform/plist/PropertyList.h"
#include "tests/endtoend/Broker.h"
#include "tests/support/BundleMaker.h"

namespace qx::test {
namespace {

const Value absent;
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

  /// What the access-control file grants of a provider to a consumer.
  Array granted(const std::string& providerID, const std::string& consumerID) const {
    auto list = PropertyList::readFile(installation_.accessControlFile());
    const auto* entry = list ? find<Dictionary>(*list->as<Dictionary>(), providerID) : nullptr;
    const auto* items = entry ? find<Dictionary>(*entry, consumerID) : nullptr;
    const auto* identifiers = items ? find<Array>(*items, "AllowedItemIDs") : nullptr;
    return identifiers ? *identifiers : Array();
  }

  std::string content(const std::string& name) const {
    auto text = FileManager::readFile(provider_.document(name));
    return text ? *text : "(unreadable)";
  }

  ScriptedProvider provider_ = installation_.installProvider(provider);
  Consumer consumer_ = readerAndWriter(app);
  Wire wire_{FileDescriptor()};
  const URL a_ = provider_.url("A.txt");
};

TEST_F(Operations, ServeADocumentFromGrantToStop) {
  const auto extended = wire_.call(extendSandbox, {a_, provider, friendly});
  ASSERT_EQ(extended.values.size(), 4U) << extended.outcome();
  EXPECT_EQ(extended.outcome(), "success");
  ASSERT_TRUE(extended.at<Bytes>(1));
  EXPECT_EQ(std::count(extended.at<Bytes>(1)->begin(), extended.at<Bytes>(1)->end(), 0), 0);
  EXPECT_EQ(extended.values[2], Value(provider_.url(".A.txt")));
  EXPECT_TRUE(extended.isAbsent(3));  // there is no sibling yet
  EXPECT_EQ(granted(provider, friendly), Array{"item/a"});

  EXPECT_EQ(outcome(providePlaceholder, {a_, provider, friendly}), "success");
  EXPECT_TRUE(std::filesystem::exists(provider_.document(".A.txt")));
  EXPECT_EQ(outcome(startProviding, {a_, provider, friendly}), "success");
  EXPECT_EQ(content("A.txt"), "content of item/a");
  const auto again = wire_.call(extendSandbox, {a_, provider, friendly});
  EXPECT_TRUE(again.at<Bytes>(3));
  EXPECT_EQ(granted(provider, friendly), Array{"item/a"});
  EXPECT_EQ(outcome(stopProviding, {a_, provider, friendly}), "success");
  EXPECT_EQ(content("A.txt"), "");

  const auto escaped = wire_.call(extendSandbox, {provider_.url("B c.txt"), provider, friendly});
  ASSERT_TRUE(escaped.at<URL>(2));
  EXPECT_TRUE(escaped.at<URL>(2)->absoluteString().ends_with("/.B%20c.txt"));
  EXPECT_EQ(granted(provider, friendly), (Array{"item/a", "item b"}));
}

TEST_F(Operations, MakeAndResolveBookmarkableStrings) {
  const auto made = wire_.call(extendBookmark, {a_, app});
  EXPECT_EQ(made.values, (Array{"docsource:com.example.provider/item/a", absent}));
  EXPECT_EQ(granted(provider, app), Array{"item/a"});
  EXPECT_EQ(wire_.call(bookmarkableString, {a_}).values, made.values);

  const auto resolved = wire_.call(documentURL, {made.values.front()});
  ASSERT_EQ(resolved.values.size(), 5U);
  EXPECT_EQ(resolved.outcome(), "success");
  EXPECT_EQ(resolved.values[0], Value(a_));
  EXPECT_TRUE(resolved.at<Bytes>(1));
  EXPECT_EQ(resolved.values[2], Value(provider_.url(".A.txt")));

  // To make a string for another is no grant for oneself.
  const auto forFriend = wire_.call(extendBookmark, {provider_.url("B c.txt"), friendly});
  EXPECT_EQ(granted(provider, friendly), Array{"item b"});
  EXPECT_EQ(outcome(documentURL, {forFriend.values.front()}), "DSErrorDomain 3");
}

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

TEST_F(Operations, RememberGrantsOverRestartsAndTheLossOfTheirFile) {
  ASSERT_EQ(outcome(extendSandbox, {a_, provider, app}), "success");
  stop();
  start();
  wire_ = consumer_.connect();
  EXPECT_EQ(outcome(startProviding, {a_, provider, app}), "success");
  EXPECT_EQ(outcome(startProviding, {provider_.url("B c.txt"), provider, app}), "DSErrorDomain 3");

  // Removed under the daemon, the file comes back with the next grant.
  std::filesystem::remove(installation_.accessControlFile());
  EXPECT_EQ(outcome(startProviding, {a_, provider, app}), "success");
  EXPECT_EQ(outcome(extendSandbox, {provider_.url("B c.txt"), provider, app}), "success");
  EXPECT_EQ(granted(provider, app), (Array{"item/a", "item b"}));
}

TEST_F(Operations, AskTheFilesPermissionsForABookmark) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can start a consumer that may less than the daemon";
  const auto guest = installation_.installConsumer("com.example.guest", {}, true);
  Wire wire = guest.connect();
  std::filesystem::permissions(provider_.document("A.txt"), std::filesystem::perms(0644));
  EXPECT_TRUE(eventually([&] {
    return wire.call(documentURL, {"docsource:x/y"}).outcome() == "DSErrorDomain 3" &&
           wire.call(documentURL, {"x"}).outcome() == "DSErrorDomain 5";
  })) << "the guest is not known by its bundle";
  EXPECT_EQ(wire.call(extendBookmark, {a_, app}).outcome(), "DSErrorDomain 3");
  std::filesystem::permissions(provider_.document("A.txt"), std::filesystem::perms(0666));
  EXPECT_EQ(wire.call(extendBookmark, {a_, app}).outcome(), "success");
}

}  // namespace
}  // namespace qx::test
