#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <fstream>
#include <initializer_list>
#include <ostream>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/files/ItemGuard.h"
#include "tests/support/TemporaryDirectory.h"

namespace qx {

void PrintTo(DirectoryRelationship relationship, std::ostream* out) {
  constexpr const char* names[] = {"contains", "same", "other"};
  *out << names[static_cast<int>(relationship)];
}

namespace {

namespace fs = std::filesystem;
using enum DirectoryRelationship;

/// A directory "Documents" with a file, a folder and links, and one "Outside" beside it.
class RelationshipTest : public testing::Test {
 protected:
  RelationshipTest() {
    fs::create_directories(root / "Documents/folder");
    fs::create_directories(root / "Documents2");
    fs::create_directories(root / "Outside/deep");
    std::ofstream(root / "Documents/file") << "x";
    std::ofstream(root / "Outside/file") << "x";
    link("../Outside", "Documents/out");
    link("../Outside/file", "Documents/outFile");
    link(root / "Outside/new", "Documents/outDangling");
    link("missing", "Documents/inDangling");
    link("folder/../file", "Documents/inFile");
    link("..", "Documents/parent");
    link("loop", "Documents/loop");
    link("Documents", "alias");
    link("Documents/folder", "aliasOfFolder");
    link("/", "slash");
  }

  void link(const std::string& target, const std::string& name) {
    std::filesystem::create_symlink(target, root / name);
  }

  DirectoryRelationship query(const std::string& item, const std::string& directory = "Documents") {
    const auto result = FileManager::getRelationship_ofDirectoryAtURL_toItemAtURL(
        URL::fileURL(root / directory), URL::fileURL(root / item));
    EXPECT_TRUE(result.ok()) << item << ": " << (result.ok() ? "" : result.error().text());
    return result.ok() ? *result : other;
  }

  test::TemporaryDirectory root;
};

TEST_F(RelationshipTest, FollowsWhereThingsAre) {
  const auto expect = [this](DirectoryRelationship expected,
                             std::initializer_list<const char*> items) {
    for (const char* item : items) EXPECT_EQ(query(item), expected) << item;
  };
  expect(contains, {"Documents/file", "Documents/folder/", "Outside/../Documents/file"});
  expect(same, {"Documents", "Documents/", "Documents//./", "Documents/folder/.."});
  expect(other, {"Documents2", "Outside/file", "", "../../../../../..", "Documents/..",
                 "Documents/folder/../../Outside/file"});

  // Links count as where they lead, and ".." as the parent of that.
  expect(contains, {"Documents/inDangling", "Documents/inFile", "alias/file", "alias/missing",
                    "Documents/out/../Documents/file", "aliasOfFolder/../file"});
  expect(same, {"alias", "Documents/parent/Documents", "aliasOfFolder/.."});
  expect(other, {"Documents/out", "Documents/out/file", "Documents/outFile",
                 "Documents/out/missing/x", "Documents/outDangling", "Documents/parent",
                 "Documents/out/../file", "aliasOfFolder/../.."});
  EXPECT_EQ(query("slash" + root.path() + "/Documents/file"), contains);
  EXPECT_EQ(query("Documents/file", "alias"), contains);
  EXPECT_EQ(query("Documents", "alias"), same);
  EXPECT_EQ(query("Documents/file", "aliasOfFolder"), other);

  // What does not exist lies below its deepest ancestor; nothing is below a file, but its name
  // still has a place.
  expect(contains,
         {"Documents/missing", "Documents/missing/a/b/", "Documents/missing/../x",
          "missing/../Documents/x", "Documents/file/below", "Outside/file/../../alias/missing/x"});
  expect(same, {"Documents/missing/..", "Documents/missing/a/../..", "Documents/file/.."});
  expect(other, {"missing", "missing/Documents", "Documents/missing/../../Outside/file",
                 "Documents/missing/../out/file", "Documents/missing/../../../x",
                 "Documents/file/../../Outside"});
}

TEST_F(RelationshipTest, AMissingDirectoryIsToldByItsURL) {
  const URL item = URL::fileURL(root / "Documents/file");
  for (const std::string name : {"missing", "missing/deeper/", "Documents/inDangling"}) {
    const URL directory = URL::fileURL(root / name);
    const auto result = FileManager::getRelationship_ofDirectoryAtURL_toItemAtURL(directory, item);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error(), fileError(ENOENT, directory));
    EXPECT_TRUE(result.error().is(QXStandardErrorDomain, 260));
  }
}

TEST_F(RelationshipTest, EverythingElseThatFailsIsAnotherError) {
  const URL directory = URL::fileURL(root / "Documents");
  const URL item = URL::fileURL(root / "Documents/file");
  std::string endless;
  while (endless.size() < 100'000) endless += "/./x";
  const std::vector<std::pair<std::optional<URL>, URL>> questions{
      {std::nullopt, item},
      {URL("http://host/"), item},
      {item, item},
      {URL::fileURL(root / "Documents/file/below"), item},
      {URL::fileURL(root / "Documents/loop"), item},
      {URL::fileURL(root / endless), item},
      {directory, URL("http://host/file")},
      {directory, URL("file:///a%00b")},
      {directory, URL("file:relative")},
      {directory, URL::fileURL(root / "Documents/loop")},
      {directory, URL::fileURL(root / "Documents/loop/../file")},
      {directory, URL::fileURL(root / endless)},
      {directory, URL::fileURL(root / ("Documents/" + std::string(256, 'x')))},
      // What procfs shows as a link to "/" may be another root altogether.
      {directory, URL::fileURL("/proc/self/root" + (root / "Documents/file"))},
  };
  for (const auto& [asked, about] : questions) {
    const auto result = FileManager::getRelationship_ofDirectoryAtURL_toItemAtURL(asked, about);
    ASSERT_FALSE(result.ok()) << about.absoluteString().substr(0, 200);
    EXPECT_TRUE(result.error().is(QXStandardErrorDomain, 256)) << result.error().text();
  }
}

TEST_F(RelationshipTest, AGuardedItemKeepsItsURLUnlessALinkLiesOnTheWay) {
  const auto text = [this](const std::string& name) {
    return URL::fileURL(root / name).absoluteString();
  };
  const auto held = [this](const std::string& directory, const std::string& item) {
    const auto guard = ItemGuard::hold(URL::fileURL(root / directory), URL::fileURL(root / item));
    return guard ? guard->url().absoluteString() : "";
  };
  for (const auto& [item, name] : {std::pair("Documents/file", "Documents/file"),
                                   {"Documents/folder/", "Documents/folder/"},
                                   {"Documents/folder/../file", "Documents/folder/../file"},
                                   {"Documents/inFile", "Documents/file"},
                                   {"alias/file", "Documents/file"}}) {
    EXPECT_EQ(held("Documents", item), text(name)) << item;
  }
  EXPECT_EQ(held("alias", "Documents/file"), text("Documents/file"));
  for (const char* item : {"Documents", "alias", "Documents/outFile", "Outside/file", "Documents2",
                           "Documents/missing", "Documents/loop", "Documents/inDangling"}) {
    EXPECT_EQ(held("Documents", item), "") << item;
  }
  EXPECT_EQ(held("missing", "Documents/file"), "");
}

TEST_F(RelationshipTest, AGuardNoticesWhatWasExchangedAndExchangedBack) {
  const std::string documents = root / "Documents";
  const auto exchange = [](const std::string& one, const std::string& other) {
    ASSERT_EQ(::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE), 0);
  };
  std::ofstream(documents + "/folder/item") << "one";
  std::ofstream(documents + "/folder/other") << "other";
  std::ofstream(documents + "/folder/third") << "third";
  fs::create_directory(documents + "/folder2");
  const auto url = URL::fileURL(documents + "/folder/item");
  const auto directory = URL::fileURL(documents);

  const auto guard = ItemGuard::hold(directory, url);
  ASSERT_TRUE(guard);
  std::ofstream(documents + "/folder/item", std::ofstream::app) << "more";
  exchange(documents + "/folder/other", documents + "/folder/third");
  EXPECT_TRUE(guard->isUntouched()) << "neither its content nor its neighbours count";
  EXPECT_TRUE(guard->isAlso(url));
  EXPECT_FALSE(guard->isAlso(URL::fileURL(documents + "/folder/other")));
  for (int i = 0; i < 2; ++i) exchange(documents + "/folder/item", documents + "/folder/other");
  EXPECT_FALSE(guard->isUntouched());
  EXPECT_FALSE(guard->isUntouched()) << "what was noticed stays noticed";

  const auto further = ItemGuard::hold(directory, url);
  ASSERT_TRUE(further);
  for (int i = 0; i < 2; ++i) exchange(documents + "/folder", documents + "/folder2");
  EXPECT_FALSE(further->isUntouched()) << "a directory on the way";
}

}  // namespace
}  // namespace qx
