#include "tests/providers/Fixture.h"

namespace {

using namespace qx::test;
using qx::URL;
using RegistryTest = ProvidersTest;

TEST_F(RegistryTest, RegistersOneAfterTheOtherWhateverFails) {
  const ProviderBundle a("A"), b("B"), late("L");
  a.addPipe("setup");
  b.addPipe("setup");
  a.install();
  b.install();
  static Mailbox<std::string> called;
  Registry::createInstancesCompletion([] { called.put("first"); });
  // Later ones are answered at once, on another thread, and an absent one is nothing to answer.
  a.endSetup("no");
  Registry::createInstancesCompletion(nullptr);
  const auto caller = std::this_thread::get_id();
  Registry::createInstancesCompletion(
      [caller] { called.put(std::this_thread::get_id() == caller ? "same thread" : "second"); });
  ASSERT_TRUE(called.waitFor("second"));
  EXPECT_EQ(called.all().size(), 1U);
  // The table is there before the registrations are through; the next refresh has to wait.
  ASSERT_TRUE(Registry::providerWithIdentifier("A"));
  ASSERT_TRUE(Registry::providerWithIdentifier("B"));
  EXPECT_FALSE(Registry::providerWithIdentifier("a"));
  EXPECT_FALSE(Registry::providerWithIdentifier(std::nullopt));
  late.install();

  const std::string again =
      "[NOTICE] Trying to register doc source extension A again. Tries left: ";
  // Three times, two seconds apart; a crash is an attempt too.
  for (const auto& [left, how] : {std::pair("2", "crash"), {"1", "no"}}) {
    ASSERT_TRUE(LogCapture::mailbox().waitFor(again + left));
    // The process that crashed is given two seconds as well, until it is seen to be gone.
    if (left == std::string("1")) {
      ASSERT_TRUE(LogCapture::mailbox().waitUntil([](const auto& lines) {
        return std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
          return line.ends_with("ended with status 1.");
        });
      }));
    }
    clock.waitForActionIn(std::chrono::seconds(2));
    EXPECT_FALSE(b.isBeingSetUp());
    clock.advance(std::chrono::milliseconds(1999));
    EXPECT_FALSE(a.isBeingSetUp());
    clock.advance(std::chrono::milliseconds(1));
    a.endSetup(how);
  }
  b.endSetup("ok");
  ASSERT_TRUE(called.waitFor("first"));
  ASSERT_TRUE(LogCapture::mailbox().waitFor(registered(late, "L")));
  EXPECT_TRUE(platform->logs("for doc source L."));

  const auto lines = LogCapture::mailbox().all();
  const auto at = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) - lines.begin();
  };
  const auto failed = at("[ERROR] Could not register doc source A. Error: ProviderDomain 7: no");
  const auto second = std::find(lines.rbegin(), lines.rend(), "[INFO] Updating provider list.");
  EXPECT_LT(failed, at(registered(b, "B")));
  EXPECT_LT(at(registered(b, "B")), lines.rend() - second - 1);
  EXPECT_TRUE(Registry::providerWithIdentifier("A"));  // stays, though nobody could register it
  EXPECT_EQ(called.all(), (std::vector<std::string>{"second", "first"}));
}

TEST_F(RegistryTest, OfTwoWithOneIdentifierTheLaterCountsAndBothAreRegistered) {
  const ProviderBundle one("A", "1"), two("A", "2");
  one.install();
  two.install();
  begin();
  EXPECT_EQ(Registry::providersInfo().size(), 1U);
  EXPECT_EQ(Registry::providerWithIdentifier("A")->extension()->bundlePath(), two.path());
  EXPECT_EQ(count(LogCapture::mailbox().all(), registered(two, "A")), 2);
}

TEST_F(RegistryTest, TheListingEndsAtTheFirstAbsentValue) {
  const ProviderBundle a("A"), b("B");
  a.install();
  b.install(17);
  begin();
  const auto listing = Registry::providersInfo();
  EXPECT_EQ(
      listing,
      (qx::Dictionary{{"A", qx::Dictionary{{"documentStorageURL", URL::fileURL(a.storage(), true)},
                                           {"providerIdentifier", "A"}}},
                      {"B", qx::Dictionary{}}}));
}

TEST_F(RegistryTest, ACountThatLeavesNoAttemptIsAFailure) {
  const ProviderBundle a("A");
  a.install();
  begin();
  LogCapture::mailbox().take();
  Mailbox<std::optional<qx::Error>> outcomes;
  Registry::providerWithIdentifier("A")->registerWithFileCoordinatorRetryCount_completion(
      0, [&](const auto& error) { outcomes.put(error); });
  ASSERT_TRUE(outcomes.waitForCount(1));
  EXPECT_EQ(outcomes.all().front(), DSPluginOperationFailedError());
  EXPECT_EQ(log.count(""), 0U);
}

/// A has its directory, B has none yet, C will never have one.
class URLResolutionTest : public ProvidersTest {
 protected:
  void SetUp() override {
    ProvidersTest::SetUp();
    a.install();
    std::filesystem::create_directories(b.path() + "/no-storage");
    b.install();
    c.install(17);
    begin();
    LogCapture::mailbox().take();
  }
  struct Resolved {
    std::string owner;
    bool isExcluded;
    std::vector<std::string> lines;
  };
  static Resolved resolve(const std::optional<URL>& url) {
    LogCapture::mailbox().take();
    bool isExcluded = !url;  // whatever was there is overwritten
    const auto owner = Registry::providerForURL_outExcludedURL(url, &isExcluded);
    auto lines = LogCapture::mailbox().take();
    EXPECT_EQ(Registry::providerForURL(url), owner);
    return {owner ? owner->identifier().value_or("") : "", isExcluded, lines};
  }
  const ProviderBundle a{"A"}, b{"B"}, c{"C"};
};

TEST_F(URLResolutionTest, FindsTheOwner) {
  const std::vector<std::string> found{"[INFO] Resolved URL to provider A."};
  std::filesystem::create_symlink("/tmp", a.storage() + "/out");
  for (const char* name : {"x", "folder/deep/x y", "folder/../x"}) {
    const auto resolved = resolve(a.url(name));
    EXPECT_EQ(resolved.owner, "A") << name;
    EXPECT_FALSE(resolved.isExcluded) << name;
    EXPECT_EQ(resolved.lines, found) << name;
  }
  for (const char* name : {"../x", "out/x"}) {
    EXPECT_EQ(resolve(a.url(name)).owner, "") << name;
    EXPECT_FALSE(resolve(a.url(name)).isExcluded) << name;
  }
}

TEST_F(URLResolutionTest, TheDirectoryItselfEndsTheWalk) {
  for (const URL& url : {URL::fileURL(a.storage(), true), a.url("x/..")}) {
    const auto resolved = resolve(url);
    EXPECT_EQ(resolved.owner, "");
    EXPECT_TRUE(resolved.isExcluded);
    EXPECT_EQ(resolved.lines,
              std::vector<std::string>{
                  "[DEBUG] Ignoring URLs that exactly match the document container folder"});
  }
}

}  // namespace
