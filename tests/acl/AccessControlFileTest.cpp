#include "tests/acl/StoreFixture.h"

namespace {

using AccessControlFile = StoreFixture;

constexpr auto cannotRead = "[ERROR] Cannot read access control from disk. Error: ";

TEST_F(AccessControlFile, thatIsCorruptEmptiesTheListAndIsWrittenOver) {
  auto store = std::make_shared<Store>();
  std::string deep;
  for (int i = 0; i < 100'000; ++i) deep += "<array>";
  for (const std::string& text :
       {std::string(), std::string("not a property list"),
        std::string("<plist version=\"1.0\"><dict><key>p</key>"),
        std::string("<plist version=\"1.0\"><dict><key>a</key><dict/><key>a</key><dict/></dict>"
                    "</plist>"),
        "<plist version=\"1.0\">" + deep,
        "<plist version=\"1.0\"><dict><key>a</key><dict><key>b</key><dict><key>AllowedItemIDs"
        "</key><array><string>c</string>" +
            deep}) {
    allow(*store, "p", "i", "c");
    putFile(text);
    takeLines();
    reread(*store);
    const auto lines = takeLines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines[0].starts_with(cannotRead)) << lines[0];
    EXPECT_GT(lines[0].size(), std::string_view(cannotRead).size());
    EXPECT_FALSE(isAllowed(*store, "p", "i", "c"));
    EXPECT_FALSE(isAllowed(*store, "a", "c", "b"));
  }
  allow(*store, "p", "i", "d");
  EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{{"p", entry("d", {"i"})}}));
}

TEST_F(AccessControlFile, hasAPathEvenWhereItsDirectoryCannotBeMade) {
  std::ofstream(root / "Home") << "in the way";
  auto store = std::make_shared<Store>();
  const auto lines = takeLines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].starts_with("[ERROR] Cannot create access control directory. Error: QX"))
      << lines[0];

  allow(*store, "p", "i", "c");
  EXPECT_EQ(takeLines().back(), "[ERROR] Could not write to " + path());
  EXPECT_TRUE(isAllowed(*store, "p", "i", "c"));

  // Said once, not at every reading.
  reread(*store);
  auto second = std::make_shared<Store>();
  EXPECT_EQ(takeLines(), Lines());
}

TEST_F(AccessControlFile, ofAnotherShapeWorksWhereItIsRightAndLosesNothing) {
  putList(
      "<dict>"
      "<key>arrayProvider</key><array><string>x</string><dict/></array>"
      "<key>emptyProvider</key><dict/>"
      "<key>good</key><dict>"
      "<key>app</key><dict><key>A</key><integer>-7</integer>"
      "<key>AllowedItemIDs</key><array><string>two</string><integer>1</integer><dict>"
      "<key>AllowedItemIDs</key><array><string>nested</string></array></dict>"
      "<string>one</string><string>two</string><true/></array>"
      "<key>Note</key><dict><key>deep</key><array><real>1.5</real></array></dict></dict>"
      "<key>dictList</key><dict><key>AllowedItemIDs</key><dict><key>x</key><true/></dict></dict>"
      "<key>emptyApp</key><dict/>"
      "<key>stringApp</key><string>x</string>"
      "</dict>"
      "</dict>");
  const qx::Value before = fileList();
  auto store = std::make_shared<Store>();
  EXPECT_EQ(takeLines(), (Lines{readFromDisk}));
  for (const char* item : {"one", "two"}) EXPECT_TRUE(isAllowed(*store, "good", item, "app"));
  for (const char* item : {"nested", "x", "1", "true", "", "A"}) {
    for (const char* provider : {"good", "arrayProvider", "emptyProvider", "missing"}) {
      for (const char* consumer : {"app", "dictList", "emptyApp", "stringApp", "missing"}) {
        EXPECT_FALSE(isAllowed(*store, provider, item, consumer)) << provider << item << consumer;
        disallow(*store, provider, item, consumer);
      }
    }
  }
  // A grant and its removal elsewhere rewrite the file twice and change nothing.
  allow(*store, "new", "i", "c");
  disallow(*store, "new", "i", "c");
  EXPECT_EQ(fileText(), *qx::PropertyList::write(before));

  // Each grant replaces what stands in its own way, and that alone.
  qx::Value expected = before;
  auto& providers = *expected.as<qx::Dictionary>();
  auto& good = *providers["good"].as<qx::Dictionary>();
  for (const char* consumer : {"stringApp", "dictList", "emptyApp"}) {
    allow(*store, "good", "i", consumer);
    good[consumer] = qx::Dictionary{{"AllowedItemIDs", qx::Array{"i"}}};
  }
  for (const char* provider : {"arrayProvider", "emptyProvider"}) {
    allow(*store, provider, "i", "c");
    providers[provider] = entry("c", {"i"});
  }
  EXPECT_EQ(fileList(), expected);

  // Every occurrence goes; what is no identifier keeps its place, and keeps the entry.
  for (const char* item : {"two", "one"}) disallow(*store, "good", item, "app");
  auto& items = (*good["app"].as<qx::Dictionary>())["AllowedItemIDs"];
  std::erase_if(*items.as<qx::Array>(),
                [](const qx::Value& element) { return element.as<std::string>(); });
  disallow(*store, "good", "i", "stringApp");
  good.erase("stringApp");
  EXPECT_EQ(fileList(), expected);
}

}  // namespace
