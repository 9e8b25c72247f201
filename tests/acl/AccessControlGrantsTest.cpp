#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "platform/notify/SystemNotifyCenter.h"
#include "tests/acl/StoreFixture.h"

namespace {

using AccessControlGrants = StoreFixture;
using std::nullopt;

TEST_F(AccessControlGrants, areOneStorePerProcessUnderConcurrentFirstCalls) {
  std::array<std::shared_ptr<Store>, 8> stores;
  std::vector<std::jthread> threads;
  for (auto& store : stores) threads.emplace_back([&store] { store = Store::sharedStore(); });
  threads.clear();
  for (const auto& store : stores) EXPECT_EQ(store, stores[0]);
  ASSERT_TRUE(stores[0]);
  EXPECT_EQ(stores[0]->syncQueue()->label(), "DSAccessControlStore sync queue");
  EXPECT_TRUE(std::filesystem::is_directory(directory()));
}

TEST_F(AccessControlGrants, areWrittenOnceAndLogged) {
  auto store = std::make_shared<Store>();
  takeLines();
  EXPECT_FALSE(isAllowed(*store, "p", "A17", "c"));
  allow(*store, "p", "A17", "c");
  EXPECT_EQ(takeLines(), (Lines{"[INFO] Allowing provider ID p to provide item ID "
                                "“A17” to consumer ID c",
                                committing}));
  const auto written = fileIdentity();
  EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{{"p", entry("c", {"A17"})}}));
  allow(*store, "p", "A17", "c");
  EXPECT_EQ(takeLines(), (Lines{"[INFO] Provider ID p is already allowed to provide "
                                "item ID “A17” to consumer ID c."}));
  EXPECT_EQ(fileIdentity(), written);

  allow(*store, "p", "A02", "c");
  EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{{"p", entry("c", {"A17", "A02"})}}));
  EXPECT_TRUE(isAllowed(*store, "p", "A17", "c"));
  EXPECT_TRUE(isAllowed(*store, "p", "A02", "c"));
  EXPECT_FALSE(isAllowed(*store, "p", "a17", "c"));
  EXPECT_FALSE(isAllowed(*store, "c", "A17", "p"));
  EXPECT_FALSE(isAllowed(*store, "p", "A17", "c2"));
}

TEST_F(AccessControlGrants, takenAwayLeaveNoTrace) {
  auto store = std::make_shared<Store>();
  for (const char* item : {"1", "2"}) allow(*store, "p", item, "c");
  allow(*store, "q", "1", "c");
  takeLines();
  const auto written = fileIdentity();
  disallow(*store, "p", "4", "c");
  disallow(*store, "p", "1", "e");
  disallow(*store, "r", "1", "c");
  EXPECT_EQ(takeLines(), Lines());
  EXPECT_EQ(fileIdentity(), written);

  disallow(*store, "p", "2", "c");
  EXPECT_EQ(takeLines(), (Lines{"[INFO] No longer allowing provider ID p to provide item ID “2” to "
                                "consumer ID c",
                                committing}));
  EXPECT_EQ(fileList(),
            qx::Value(qx::Dictionary{{"p", entry("c", {"1"})}, {"q", entry("c", {"1"})}}));
  disallow(*store, "p", "1", "c");
  EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{{"q", entry("c", {"1"})}}));
  EXPECT_FALSE(isAllowed(*store, "p", "1", "c"));
  disallow(*store, "q", "1", "c");
  EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{}));
}

TEST_F(AccessControlGrants, answerAbsentAndEmptyIdentifiersEachInItsWay) {
  auto store = std::make_shared<Store>();
  allow(*store, "", "i", "c");
  allow(*store, "p", "", "c");
  allow(*store, "p", "i", "");
  const auto with = [&](auto... triple) {
    return store->isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
        triple...);
  };
  const auto plain = [&](auto... triple) {
    return store->isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(triple...);
  };
  EXPECT_TRUE(with("", "i", "c"));
  EXPECT_TRUE(with("p", "", "c"));
  EXPECT_TRUE(with("p", "i", ""));
  EXPECT_FALSE(with("", "j", "c"));
  EXPECT_FALSE(plain("", "i", "c"));
  EXPECT_FALSE(plain("p", "", "c"));
  EXPECT_TRUE(plain("p", "i", ""));
  EXPECT_FALSE(plain("q", "i", ""));

  // Those that are refused do not wait for the queue.
  store->syncQueue()->suspend();
  EXPECT_FALSE(with(nullopt, "i", "c"));
  EXPECT_FALSE(with("p", nullopt, "c"));
  EXPECT_FALSE(with("p", "i", nullopt));
  EXPECT_FALSE(plain(nullopt, "i", "c"));
  EXPECT_FALSE(plain("p", nullopt, "c"));
  EXPECT_FALSE(plain("p", "i", nullopt));
  EXPECT_FALSE(plain("", "i", "c"));
  EXPECT_FALSE(plain("p", "", "c"));
  store->syncQueue()->resume();

  takeLines();
  store->allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier("p", nullopt, "c");
  store->disallowProviderWithIdentifier_fromProvidingItemWithID_toConsumerWithIdentifier(nullopt,
                                                                                         "i", "c");
  EXPECT_EQ(takeLines(), Lines());
}

TEST_F(AccessControlGrants, takeAnyIdentifierThroughFileAndRestart) {
  std::string everyByteOfASCII;
  for (int c = 1; c < 128; ++c) everyByteOfASCII += static_cast<char>(c);
  const std::vector<std::string> identifiers{
      everyByteOfASCII,
      std::string("\0nul\0", 5),
      "line\nbreak\r\nand\rreturn",
      " leading and trailing\t",
      "“quoted” \"twice\" 'thrice' <key>&amp;]]>",
      "%@ %s %d",
      "na\u00efve na\u0069\u0308ve",
      "\U0001F4C4\uFFFE\uFFFF\u0085\u2028\u202E",
      std::string(1 << 20, 'x'),
  };
  auto store = std::make_shared<Store>();
  for (const auto& identifier : identifiers) {
    allow(*store, identifier, identifier, identifier);
    allow(*store, "p", identifier, "c");
  }
  for (const auto& text : takeLines()) {
    EXPECT_EQ(std::count_if(text.begin(), text.end(), [](char c) { return c >= 0 && c < ' '; }), 0);
  }
  const std::string written = fileText();

  auto restarted = std::make_shared<Store>();
  for (const auto& identifier : identifiers) {
    EXPECT_TRUE(isAllowed(*restarted, identifier, identifier, identifier));
    EXPECT_TRUE(isAllowed(*restarted, "p", identifier, "c"));
    EXPECT_FALSE(isAllowed(*restarted, "p", identifier + "x", "c"));
    EXPECT_FALSE(isAllowed(*restarted, "p", identifier.substr(1), "c"));
  }
  allow(*restarted, "p", "one more", "c");
  disallow(*restarted, "p", "one more", "c");
  EXPECT_EQ(fileText(), written);
}

TEST_F(AccessControlGrants, areReadAgainAtTheFirstUnlock) {
  auto store = Store::sharedStore();
  allow(*store, "p", "earlier", "c");
  putList(
      "<dict><key>p</key><dict><key>c</key><dict><key>AllowedItemIDs</key>"
      "<array><string>later</string></array></dict></dict></dict>");
  EXPECT_FALSE(isAllowed(*store, "p", "later", "c"));
  static std::promise<void> wasRead;
  ds_default_log().setSink([](qx::LogLevel, const std::string& text) {
    if (text == readFromDisk) wasRead.set_value();
  });
  ASSERT_EQ(qx::SystemNotifyCenter::post("com.veltro.mobile.lockwardd.first_unlock"), nullopt);
  ASSERT_EQ(wasRead.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_TRUE(isAllowed(*store, "p", "later", "c"));
  EXPECT_FALSE(isAllowed(*store, "p", "earlier", "c"));
}

TEST_F(AccessControlGrants, ofManyThreadsAreAllKept) {
  auto store = std::make_shared<Store>();
  constexpr int threadCount = 4;
  constexpr int grants = 25;
  std::atomic<int> missing = 0;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
      threads.emplace_back([&, own = std::to_string(thread)] {
        for (int i = 0; i < grants; ++i) {
          const std::string item = std::to_string(i);
          allow(*store, "p", item + "." + own, "c");
          allow(*store, "p", item, "shared");
          if (!isAllowed(*store, "p", item + "." + own, "c")) ++missing;
          if (!isAllowed(*store, "p", item, "shared")) ++missing;
          if (i % 5 == 4) disallow(*store, "p", item + "." + own, "c");
          if (i % 10 == 0) store->rereadAccessControl();
        }
      });
    }
  }
  EXPECT_EQ(missing, 0);
  const auto lines = takeLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), committing),
            threadCount * grants + grants + threadCount * grants / 5);

  auto restarted = std::make_shared<Store>();
  for (int i = 0; i < grants; ++i) {
    EXPECT_TRUE(isAllowed(*restarted, "p", std::to_string(i), "shared"));
    for (int thread = 0; thread < threadCount; ++thread) {
      EXPECT_EQ(isAllowed(*restarted, "p", std::to_string(i) + "." + std::to_string(thread), "c"),
                i % 5 != 4);
    }
  }
}

}  // namespace
