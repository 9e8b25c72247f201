#include <fstream>

#include "tests/acl/StoreFixture.h"

namespace {

using AccessControlFile = StoreFixture;

constexpr auto cannotRead = "[ERROR] Cannot read access control from disk. Error: ";

TEST_F(AccessControlFile, isNotThereAtTheFirstStart) {
  auto store = std::make_shared<Store>();
  EXPECT_TRUE(std::filesystem::is_directory(directory()));
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_EQ(takeLines(), Lines());
  EXPECT_FALSE(isAllowed(*store, "p", "i", "c"));

  allow(*store, "p", "i", "c");
  struct stat status {};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(fileText(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
            "\t<key>p</key>\n\t<dict>\n\t\t<key>c</key>\n\t\t<dict>\n"
            "\t\t\t<key>AllowedItemIDs</key>\n\t\t\t<array>\n\t\t\t\t<string>i</string>\n"
            "\t\t\t</array>\n\t\t</dict>\n\t</dict>\n</dict>\n</plist>\n");
  takeLines();

  auto restarted = std::make_shared<Store>();
  EXPECT_EQ(takeLines(), (Lines{readFromDisk}));
  EXPECT_TRUE(isAllowed(*restarted, "p", "i", "c"));
}

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

TEST_F(AccessControlFile, thatIsMissingLeavesTheListAsItIs) {
  auto store = std::make_shared<Store>();
  allow(*store, "p", "i", "c");
  takeLines();
  std::filesystem::remove(path());
  reread(*store);
  EXPECT_EQ(takeLines(), Lines());
  EXPECT_TRUE(isAllowed(*store, "p", "i", "c"));

  // The directory is made once in the life of a process.
  std::filesystem::remove_all(directory());
  reread(*store);
  EXPECT_FALSE(std::filesystem::exists(directory()));
  EXPECT_TRUE(isAllowed(*store, "p", "i", "c"));
}

TEST_F(AccessControlFile, thatCannotBeWrittenLeavesTheGrantInMemory) {
  auto store = std::make_shared<Store>();
  allow(*store, "p", "0", "c");
  const std::string couldNotWrite = "[ERROR] Could not write to " + path();
  const auto expectFailure = [&](const std::string& item) {
    takeLines();
    allow(*store, "p", item, "c");
    const auto lines = takeLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], committing);
    EXPECT_EQ(lines[2], couldNotWrite);
    EXPECT_TRUE(isAllowed(*store, "p", item, "c"));
  };

  // Something stands where the file must be; the directory is gone.
  std::filesystem::remove(path());
  std::filesystem::create_directories(path() + "/occupied");
  expectFailure("1");
  std::filesystem::remove_all(directory());
  expectFailure("2");
  std::filesystem::create_directories(directory());

  allow(*store, "p", "3", "c");
  auto restarted = std::make_shared<Store>();
  for (const char* item : {"0", "1", "2", "3"}) {
    EXPECT_TRUE(isAllowed(*restarted, "p", item, "c")) << item;
  }
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

TEST_F(AccessControlFile, whoseRootIsNoDictionaryGrantsNothing) {
  for (const char* value :
       {"<string>p</string>", "<array><dict><key>p</key><dict/></dict></array>"}) {
    putList(value);
    const std::string before = fileText();
    auto store = std::make_shared<Store>();
    EXPECT_EQ(takeLines(), (Lines{readFromDisk}));
    disallow(*store, "p", "i", "c");
    EXPECT_EQ(fileText(), before);
    allow(*store, "p", "i", "c");
    EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{{"p", entry("c", {"i"})}}));
    takeLines();
  }
}

}  // namespace
