#include "acl/AccessControlList.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>

namespace {

std::string textOf(AccessControlList& list) {
  std::string text;
  qx::PropertyList::Writer writer([&text](std::string_view piece) { text += piece; });
  list.write(writer);
  writer.finish();
  return text;
}

AccessControlList listOf(const std::string& text) {
  std::istringstream stream(text);
  auto list = AccessControlList::read(stream);
  EXPECT_TRUE(list.ok());
  return list ? std::move(*list) : AccessControlList();
}

// Random changes beside a plain model of the same list, small enough that tables and lists grow,
// shrink and become empty, and are written and read in between.
TEST(AccessControlList, doesWhatAPlainModelDoes) {
  std::mt19937 random(20261121);  // NOLINT: the same run each time
  const auto pick = [&](unsigned count, const char* prefix) {
    return prefix + std::to_string(std::uniform_int_distribution<unsigned>(0, count - 1)(random));
  };
  std::map<std::string, std::map<std::string, std::vector<std::string>>> model;
  AccessControlList list;
  const auto textOfModel = [&] {
    qx::Dictionary root;
    for (const auto& [provider, consumers] : model) {
      qx::Dictionary entries;
      for (const auto& [consumer, items] : consumers) {
        entries[consumer] =
            qx::Dictionary{{"AllowedItemIDs", qx::Array(items.begin(), items.end())}};
      }
      root[provider] = entries;
    }
    return *qx::PropertyList::write(root);
  };

  for (int round = 0; round < 10'000; ++round) {
    const std::string provider = pick(20, "provider");
    const std::string consumer = pick(round % 3 == 0 ? 60 : 2, "");
    const std::string item = pick(40, "item ");
    // Periods of growth alternate with periods of decline.
    const bool isGrowing = random() % 10 < (round / 1'250 % 2 == 0 ? 8 : 2);
    auto& items = model[provider][consumer];
    const auto found = std::find(items.begin(), items.end(), item);
    const bool isThere = found != items.end();
    ASSERT_EQ(list.isAllowed(provider, item, consumer), isThere);
    if (isGrowing) {
      if (!isThere) items.push_back(item);
      ASSERT_EQ(list.allow(provider, item, consumer), !isThere);
    } else {
      if (isThere) items.erase(found);
      ASSERT_EQ(list.disallow(provider, item, consumer), isThere);
    }
    if (items.empty()) model[provider].erase(consumer);
    if (model[provider].empty()) model.erase(provider);
    if (round % 250 == 0) {
      const std::string text = textOf(list);
      ASSERT_EQ(text, textOfModel()) << round;
      if (round % 1'000 == 0) list = listOf(text);
    }
  }
  for (const auto& [provider, consumers] : std::map(model)) {
    for (const auto& [consumer, items] : consumers) {
      for (const auto& item : items) ASSERT_TRUE(list.disallow(provider, item, consumer));
    }
  }
  AccessControlList empty;
  EXPECT_EQ(textOf(list), textOf(empty));
}

TEST(AccessControlList, keepsAConsumersOtherKeysWhenItsLastItemGoes) {
  const auto with = [](qx::Dictionary entry) {
    return *qx::PropertyList::write(
        qx::Dictionary{{"provider", qx::Dictionary{{"consumer", std::move(entry)}}}});
  };
  auto list = listOf(with({{"AllowedItemIDs", qx::Array{"one"}}, {"Note", "mine"}}));
  EXPECT_TRUE(list.disallow("provider", "one", "consumer"));
  EXPECT_EQ(textOf(list), with({{"Note", "mine"}}));
  EXPECT_TRUE(list.allow("provider", "two", "consumer"));
  EXPECT_EQ(textOf(list), with({{"AllowedItemIDs", qx::Array{"two"}}, {"Note", "mine"}}));
}

}  // namespace
