#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
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
  const std::string before = fileText();
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

  // A disk that is full, as far as this process can tell.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit tiny{64, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tiny), 0);
  expectFailure("1");
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(fileText(), before);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory()), {}), 1);

  // Something stands where the file must be.
  std::filesystem::remove(path());
  std::filesystem::create_directories(path() + "/occupied");
  expectFailure("2");
  std::filesystem::remove_all(path());

  // The directory is gone.
  std::filesystem::remove_all(directory());
  expectFailure("3");
  std::filesystem::create_directories(directory());

  if (::geteuid() == 0) {
    std::cout << "A read-only directory is not tried: root may write there.\n";
  } else {
    std::filesystem::permissions(directory(), std::filesystem::perms(0500));
    expectFailure("4");
    std::filesystem::permissions(directory(), std::filesystem::perms(0700));
  }

  allow(*store, "p", "5", "c");
  auto restarted = std::make_shared<Store>();
  for (const char* item : {"0", "1", "2", "3", "5"}) {
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
      "<string>one</string><string>two</string><true/><string>1</string><array/></array>"
      "<key>Note</key><dict><key>deep</key><array><real>1.5</real></array></dict></dict>"
      "<key>emptyApp</key><dict/>"
      "<key>noList</key><dict><key>allowedItemIDs</key><array><string>x</string></array></dict>"
      "<key>stringApp</key><string>x</string>"
      "<key>dictList</key><dict><key>AllowedItemIDs</key><dict><key>x</key><true/></dict></dict>"
      "</dict>"
      "</dict>");
  const qx::Value before = fileList();
  ASSERT_FALSE(before.isNull());
  auto store = std::make_shared<Store>();
  EXPECT_EQ(takeLines(), (Lines{readFromDisk}));
  for (const char* item : {"one", "two", "1"}) EXPECT_TRUE(isAllowed(*store, "good", item, "app"));
  for (const char* item : {"nested", "x", "true", "", "A"}) {
    for (const char* provider : {"good", "arrayProvider", "emptyProvider", "missing"}) {
      for (const char* consumer :
           {"app", "emptyApp", "noList", "stringApp", "dictList", "missing"}) {
        EXPECT_FALSE(isAllowed(*store, provider, item, consumer)) << provider << item << consumer;
        disallow(*store, provider, item, consumer);
      }
    }
  }
  EXPECT_EQ(takeLines(), Lines());

  // A grant and its removal elsewhere rewrite the file twice and change nothing.
  allow(*store, "new", "i", "c");
  disallow(*store, "new", "i", "c");
  EXPECT_EQ(fileList(), before);

  // Each grant replaces what stands in its own way, and that alone.
  qx::Value expected = before;
  auto& providers = *expected.as<qx::Dictionary>();
  auto& good = *providers["good"].as<qx::Dictionary>();
  const auto items = [](qx::Value& consumer) -> qx::Value& {
    return (*consumer.as<qx::Dictionary>())["AllowedItemIDs"];
  };
  for (const char* consumer : {"stringApp", "dictList", "noList", "emptyApp", "app"}) {
    allow(*store, "good", "i", consumer);
    EXPECT_TRUE(isAllowed(*store, "good", "i", consumer));
    if (good[consumer].as<std::string>()) good[consumer] = qx::Dictionary{};
    if (!items(good[consumer]).as<qx::Array>()) items(good[consumer]) = qx::Array{};
    items(good[consumer]).as<qx::Array>()->push_back("i");
    EXPECT_EQ(fileList(), expected) << consumer;
  }
  for (const char* provider : {"arrayProvider", "emptyProvider"}) {
    allow(*store, provider, "i", "c");
    providers[provider] = entry("c", {"i"});
    EXPECT_EQ(fileList(), expected) << provider;
  }

  // Every occurrence goes; what is no identifier keeps its place, and keeps the entry.
  for (const char* item : {"two", "one", "1", "i"}) disallow(*store, "good", item, "app");
  std::erase_if(*items(good["app"]).as<qx::Array>(),
                [](const qx::Value& element) { return element.as<std::string>(); });
  disallow(*store, "good", "i", "stringApp");
  good.erase("stringApp");
  EXPECT_EQ(fileList(), expected);
  auto restarted = std::make_shared<Store>();
  EXPECT_TRUE(isAllowed(*restarted, "good", "i", "noList"));
  EXPECT_FALSE(isAllowed(*restarted, "good", "two", "app"));
}

TEST_F(AccessControlFile, whoseRootIsNoDictionaryGrantsNothing) {
  for (const char* value : {"<array><string>p</string></array>", "<string>p</string>", "<true/>",
                            "<array><dict><key>p</key><dict/></dict></array>"}) {
    putList(value);
    const std::string before = fileText();
    auto store = std::make_shared<Store>();
    EXPECT_EQ(takeLines(), (Lines{readFromDisk}));
    EXPECT_FALSE(isAllowed(*store, "p", "i", "c"));
    disallow(*store, "p", "i", "c");
    EXPECT_EQ(fileText(), before);
    allow(*store, "p", "i", "c");
    EXPECT_TRUE(isAllowed(*store, "p", "i", "c"));
    EXPECT_EQ(fileList(), qx::Value(qx::Dictionary{{"p", entry("c", {"i"})}}));
    takeLines();
  }
}

}  // namespace
