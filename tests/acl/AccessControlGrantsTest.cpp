#include "tests/acl/StoreFixture.h"

namespace {

using AccessControlGrants = StoreFixture;
using std::nullopt;

TEST_F(AccessControlGrants, areWrittenOnceAndLoggedAndTakenAwayWithoutATrace) {
  auto store = std::make_shared<Store>();
  takeLines();
  EXPECT_FALSE(isAllowed(*store, "p", "A17", "c"));
  allow(*store, "p", "A17", "c");
  EXPECT_EQ(takeLines(), (Lines{"[INFO] Allowing provider ID p to provide item ID "
                                "“A17” to consumer ID c",
                                committing}));
  for (const auto& [provider, item, consumer] :
       {std::tuple("p", "a17", "c"), {"c", "A17", "p"}, {"p", "A17", "c2"}, {"q", "A17", "c"}}) {
    EXPECT_FALSE(isAllowed(*store, provider, item, consumer));
    disallow(*store, provider, item, consumer);
  }
  EXPECT_EQ(takeLines(), Lines());
  const auto written = fileIdentity();
  allow(*store, "p", "A17", "c");
  EXPECT_EQ(takeLines(), (Lines{"[INFO] Provider ID p is already allowed to provide "
                                "item ID “A17” to consumer ID c."}));
  EXPECT_EQ(fileIdentity(), written);
  allow(*store, "p", "A02", "c");
  allow(*store, "q", "1", "c");
  takeLines();

  disallow(*store, "p", "A02", "c");
  EXPECT_EQ(takeLines(), (Lines{"[INFO] No longer allowing provider ID p to provide item ID “A02” "
                                "to consumer ID c",
                                committing}));
  EXPECT_EQ(fileList(),
            qx::Value(qx::Dictionary{{"p", entry("c", {"A17"})}, {"q", entry("c", {"1"})}}));
  disallow(*store, "p", "A17", "c");
  EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{{"q", entry("c", {"1"})}}));
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
  EXPECT_TRUE(with("", "i", "c") && with("p", "", "c") && with("p", "i", ""));
  EXPECT_TRUE(plain("p", "i", ""));
  EXPECT_FALSE(plain("", "i", "c") || plain("p", "", "c"));
  EXPECT_FALSE(with(nullopt, "i", "c") || with("p", nullopt, "c") || with("p", "i", nullopt));
  EXPECT_FALSE(plain(nullopt, "i", "c") || plain("p", nullopt, "c") || plain("p", "i", nullopt));
  takeLines();
  store->allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier("p", nullopt, "c");
  store->disallowProviderWithIdentifier_fromProvidingItemWithID_toConsumerWithIdentifier(nullopt,
                                                                                         "i", "c");
  EXPECT_EQ(takeLines(), Lines());
}

}  // namespace
