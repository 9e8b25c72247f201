#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "platform/extension/ExtensionHost.h"
#include "platform/queue/Clock.h"
#include "providers/DSExtensionDocSource.h"
#include "tests/support/CoordinationRecorder.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx::test;
using qx::URL;
using Registry = DSExtensionDocSource;

/// With real bundles and real extension processes; each test has the registry of its process.
class RegistryTest : public testing::Test {
 protected:
  RegistryTest() { temporaryRoot(); }
  void SetUp() override {
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
    recorder = std::make_unique<CoordinationRecorder>();
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
  static bool waitForLines(const std::string& line, std::size_t count) {
    return LogCapture::mailbox().waitUntil([&](const auto& lines) {
      return std::count(lines.begin(), lines.end(), line) >= static_cast<std::ptrdiff_t>(count);
    });
  }
  static std::ptrdiff_t count(const std::vector<std::string>& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
  }

  LogCapture log;
  std::unique_ptr<CoordinationRecorder> recorder;
};

TEST_F(RegistryTest, RegistersOneAfterTheOtherWhateverFails) {
  static auto& clock = *new qx::ManualClock;
  qx::Clock::setCurrent(clock);
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
  for (const char* left : {"2", "1"}) {
    ASSERT_TRUE(LogCapture::mailbox().waitFor(again + left));
    EXPECT_FALSE(b.isBeingSetUp());
    clock.waitForScheduled(1);
    clock.advance(std::chrono::seconds(2));
    a.endSetup("no");
  }
  b.endSetup("ok");
  ASSERT_TRUE(called.waitFor("first"));
  ASSERT_TRUE(LogCapture::mailbox().waitFor(registered(late, "L")));
  EXPECT_TRUE(recorder->events().waitFor("add L"));

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

TEST_F(RegistryTest, FollowsTheInstalledExtensions) {
  const ProviderBundle a("A"), b("B");
  a.install();
  b.install();
  begin();
  const auto first = Registry::providerWithIdentifier("A");
  const auto replaced = Registry::providerWithIdentifier("B");
  ASSERT_TRUE(first && replaced);

  b.install();
  ASSERT_TRUE(waitForLines(registered(b, "B"), 2));
  EXPECT_EQ(Registry::providerWithIdentifier("A"), first);
  const auto replacement = Registry::providerWithIdentifier("B");
  EXPECT_NE(replacement, replaced);
  ASSERT_TRUE(replacement);
  EXPECT_EQ(count(LogCapture::mailbox().all(), registered(a, "A")), 1);

  a.remove();
  ASSERT_TRUE(recorder->events().waitFor("remove A"));
  EXPECT_FALSE(Registry::providerWithIdentifier("A"));
  EXPECT_EQ(Registry::providerWithIdentifier("B"), replacement);
  recorder->events().take();
  b.remove();
  ASSERT_TRUE(recorder->events().waitFor("remove B"));
  EXPECT_TRUE(Registry::providersInfo().empty());
  EXPECT_EQ(recorder->events().all().size(), 1U);
  // One that is gone still knows what it was.
  EXPECT_EQ(first->identifier(), "A");
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

TEST_F(RegistryTest, LookUpsGoOnWhileExtensionsChange) {
  const ProviderBundle a("A"), b("B");
  a.install();
  begin();
  std::atomic<bool> isOver = false;
  std::vector<std::future<void>> threads;
  for (int i = 0; i < 3; ++i) {
    threads.push_back(std::async(std::launch::async, [&] {
      while (!isOver) {
        EXPECT_TRUE(Registry::providerWithIdentifier("A"));
        EXPECT_TRUE(Registry::providerForURL(a.url("x")));
        EXPECT_LE(Registry::providersInfo().size(), 2U);
      }
    }));
  }
  for (std::size_t round = 1; round <= 3; ++round) {
    b.install();
    ASSERT_TRUE(waitForLines(registered(b, "B"), round));
    b.remove();
    EXPECT_TRUE(recorder->events().waitUntil([round](const auto& events) {
      return std::count(events.begin(), events.end(), "remove B") >=
             static_cast<std::ptrdiff_t>(round);
    }));
  }
  isOver = true;
  for (auto& thread : threads) thread.get();
}

/// A has its directory, B has none yet, C will never have one.
class URLResolutionTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    a.install();
    std::filesystem::create_directories(b.path() + "/no-storage");
    a.addPipe("changed");
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
  std::filesystem::create_directory(a.storage() + "/folder");
  std::filesystem::create_symlink("/tmp", a.storage() + "/out");
  for (const char* name : {"x", "folder/deep/x y", "folder/../x", "folder/"}) {
    const auto resolved = resolve(a.url(name));
    EXPECT_EQ(resolved.owner, "A") << name;
    EXPECT_FALSE(resolved.isExcluded) << name;
    EXPECT_EQ(resolved.lines, found) << name;
  }
  for (const char* name : {"../x", "out/x", "folder/../../x"}) {
    EXPECT_EQ(resolve(a.url(name)).owner, "") << name;
    EXPECT_FALSE(resolve(a.url(name)).isExcluded) << name;
  }
}

TEST_F(URLResolutionTest, TheDirectoryItselfEndsTheWalk) {
  for (const URL& url :
       {URL::fileURL(a.storage(), true), URL::fileURL(a.storage()), a.url("x/..")}) {
    const auto resolved = resolve(url);
    EXPECT_EQ(resolved.owner, "");
    EXPECT_TRUE(resolved.isExcluded);
    EXPECT_EQ(resolved.lines,
              std::vector<std::string>{
                  "[DEBUG] Ignoring URLs that exactly match the document container folder"});
  }
}

TEST_F(URLResolutionTest, QueriesThatFailAreSkipped) {
  const std::string missing =
      "[DEBUG] Doc source B doesn't have a provided items directory; it may not have run so far.";
  const auto resolved = resolve(URL("file:///tmp/x"));
  EXPECT_EQ(resolved.owner, "");
  EXPECT_FALSE(resolved.isExcluded);
  ASSERT_EQ(resolved.lines.size(), 2U);
  EXPECT_EQ(resolved.lines[0], missing);
  EXPECT_TRUE(resolved.lines[1].starts_with(
      "[ERROR] Cannot get the relationship between URL (null) and file:///tmp/x. Error: "
      "QXStandardErrorDomain 256: "))
      << resolved.lines[1];

  // What is no file is a failure with every provider.
  for (const auto& url : {std::optional<URL>(), std::optional(URL("https://example.com/x"))}) {
    const auto failed = resolve(url);
    EXPECT_EQ(failed.owner, "");
    EXPECT_FALSE(failed.isExcluded);
    ASSERT_EQ(failed.lines.size(), 3U);
    EXPECT_TRUE(failed.lines[0].starts_with("[ERROR] Cannot get the relationship between URL " +
                                            URL::fileURL(a.storage(), true).absoluteString() +
                                            " and " + qx::logText(url) + ". Error: "))
        << failed.lines[0];
  }
}

TEST_F(URLResolutionTest, AWrittenItemIsItsOwnersAffair) {
  const auto other = Registry::providerWithIdentifier("C");
  const auto tell = [&](const URL& url) {
    LogCapture::mailbox().take();
    other->_writerWithID_didFinishWritingForURL("writer", url);
    auto lines = LogCapture::mailbox().all();
    EXPECT_EQ(lines.front(), "[INFO] QXFileCoordinator is telling us the item at URL " +
                                 url.absoluteString() + " was changed by writer ID writer.");
    return lines;
  };
  const auto written = a.url("x");
  EXPECT_EQ(count(tell(written), "[DEBUG] The item at URL " + written.absoluteString() +
                                     " is provided by the etxension A"),
            1);
  EXPECT_EQ(a.changedURL(), written.absoluteString());

  tell(URL::fileURL(a.storage(), true));
  EXPECT_EQ(log.count("[ERROR]"), 0U);

  const URL foreign("file:///tmp/x");
  EXPECT_EQ(count(tell(foreign),
                  "[ERROR] Could not find any extension that provides an item at "
                  "URL file:///tmp/x"),
            1);
}

}  // namespace
