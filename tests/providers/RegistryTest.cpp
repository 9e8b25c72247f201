// The registry of providers, with real extensions and a clock that the test moves.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "platform/extension/ExtensionHost.h"
#include "platform/queue/Clock.h"
#include "providers/DSExtensionDocSource.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx::test;
using qx::URL;

class RegistryTest : public testing::Test {
 protected:
  using Registry = DSExtensionDocSource;

  RegistryTest() {
    temporaryRoot();
    qx::Clock::setCurrent(clock);
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
  }
  void TearDown() override { qx::ExtensionHost::shared().shutdown(); }

  /// Begins discovery and waits for the first refresh.
  static void begin() {
    std::promise<void> called;
    Registry::createInstancesCompletion([&] { called.set_value(); });
    called.get_future().wait();
  }
  static std::string registered(const ProviderBundle& bundle, const std::string& identifier) {
    return "[INFO] Registered doc source extension " + identifier + " for path " +
           URL::fileURL(bundle.storage(), true).absoluteString();
  }

  static inline qx::ManualClock& clock = *new qx::ManualClock;
  const LogCapture log;
};

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
  EXPECT_EQ(LogCapture::count(registered(two, "A")), 2U);
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

}  // namespace
