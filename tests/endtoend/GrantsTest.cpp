// The access-control file under a running daemon: whatever stands in its place, whatever the
// identifiers in it.

#include <filesystem>
#include <fstream>

#include "platform/files/FileManager.h"
#include "platform/plist/PropertyList.h"
#include "tests/endtoend/Broker.h"
#include "tests/support/BundleMaker.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

const char* const app = "com.example.app";
const char* const p = "com.example.p";

class Grants : public Broker {
 protected:
  Grants() { fs::create_directories(fs::path(installation_.accessControlFile()).parent_path()); }

  std::string grant(const std::string& name) {
    return consumer_.connect().call(extendSandbox, {provider_.url(name), p, app}).outcome();
  }
  std::string use(const std::string& name) {
    return consumer_.connect().call(startProviding, {provider_.url(name), p, app}).outcome();
  }
  static Dictionary granting(Array identifiers) {
    return {{app, Dictionary{{"AllowedItemIDs", std::move(identifiers)}}}};
  }
  Value file() const {
    auto list = PropertyList::readFile(installation_.accessControlFile());
    return list ? *list : Value(list.error());
  }

  ScriptedProvider provider_ = installation_.installProvider(p);
  Consumer consumer_ = readerAndWriter(app);
};

TEST_F(Grants, SurviveTheDaemonAndTheLossOfTheirFile) {
  start();
  EXPECT_EQ(daemon_->count("[INFO] Successfully read access control from disk."), 0U);
  EXPECT_EQ(grant("A.txt"), "success");
  EXPECT_EQ(file(), Value(Dictionary{{p, granting({"item/a"})}}));
  stop();
  start();
  EXPECT_EQ(use("A.txt"), "success");
  EXPECT_EQ(use("B c.txt"), "DSErrorDomain 3");

  // Removed under the daemon, it comes back with the next grant.
  fs::remove(installation_.accessControlFile());
  EXPECT_EQ(use("A.txt"), "success");
  EXPECT_EQ(grant("B c.txt"), "success");
  EXPECT_EQ(file(), Value(Dictionary{{p, granting({"item/a", "item b"})}}));
}

TEST_F(Grants, StartAnewAfterAFileThatCannotBeRead) {
  std::ofstream(installation_.accessControlFile())
      << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>cut";
  start();
  EXPECT_TRUE(daemon_->logs("fault: [ERROR] Cannot read access control from disk. Error: "));
  EXPECT_EQ(use("A.txt"), "DSErrorDomain 3");
  EXPECT_EQ(grant("A.txt"), "success");
  EXPECT_EQ(file(), Value(Dictionary{{p, granting({"item/a"})}}));
}

TEST_F(Grants, HoldInMemoryWhenTheFileCannotBeWritten) {
  const std::string path = installation_.accessControlFile();
  fs::create_directories(path + "/in the way");
  start();
  EXPECT_EQ(grant("A.txt"), "success");
  EXPECT_TRUE(daemon_->logs("fault: [ERROR] Could not write to " + path));
  EXPECT_EQ(use("A.txt"), "success");
  for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path())) {
    EXPECT_EQ(entry.path().filename(), "AccessControl.plist");
  }

  // The next grant that can be written writes all of them.
  fs::remove_all(path);
  EXPECT_EQ(grant("B c.txt"), "success");
  EXPECT_EQ(file(), Value(Dictionary{{p, granting({"item/a", "item b"})}}));
}

TEST_F(Grants, HoldInMemoryWhenTheDirectoryIsReadOnly) {
  if (geteuid() == 0) GTEST_SKIP() << "no directory is read-only to root";
  start();
  const auto directory = fs::path(installation_.accessControlFile()).parent_path();
  fs::permissions(directory, fs::perms(0555));
  EXPECT_EQ(grant("A.txt"), "success");
  EXPECT_TRUE(daemon_->logs("[ERROR] Could not write to " + installation_.accessControlFile()));
  EXPECT_EQ(use("A.txt"), "success");
  fs::permissions(directory, fs::perms(0755));
}

TEST_F(Grants, TakeFromAFileOfAnotherShapeWhatHasTheRightOne) {
  const Dictionary strange{
      {"com.example.text", "no dictionary"},
      {"com.example.deep", Dictionary{{app, Array{"x"}}}},
      {p,
       Dictionary{{app, Dictionary{{"AllowedItemIDs", Array{"item/a", 7, true}}, {"Note", "kept"}}},
                  {"com.example.odd", 3.5}}}};
  writeList(installation_.accessControlFile(), strange);
  start();
  EXPECT_EQ(use("A.txt"), "success");
  EXPECT_EQ(use("B c.txt"), "DSErrorDomain 3");
  EXPECT_EQ(grant("B c.txt"), "success");
  Dictionary expected = strange;
  auto& entry = *expected.at(p).as<Dictionary>()->at(app).as<Dictionary>();
  entry.at("AllowedItemIDs").as<Array>()->emplace_back("item b");
  EXPECT_EQ(file(), Value(expected));
  stop();

  writeList(installation_.accessControlFile(), Array{"no", "dictionary"});
  start();
  EXPECT_EQ(use("A.txt"), "DSErrorDomain 3");
  EXPECT_EQ(grant("A.txt"), "success");
  EXPECT_EQ(use("A.txt"), "success");
}

TEST_F(Grants, KeepIdentifiersAsTheyAre) {
  const std::vector<std::string> identifiers{"line\nbreaks\r\nand\ttabs",
                                             std::string("\x01\x02\x1b[31m\x7f zero\0end", 17),
                                             "\"quotes\" 'all' “kinds” <&>",
                                             "a//b/../c/",
                                             "\xEF\xBF\xBE\xEF\xBF\xBF",
                                             " blanks ",
                                             "%@ %s %d \\x0a",
                                             "\xF0\x9F\x93\x84 ünï"};
  Dictionary items;
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    items.emplace("document " + std::to_string(i), identifiers[i]);
  }
  provider_.behave({{"items", items}});
  start();

  std::vector<Value> strings;
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    const URL url = provider_.url("document " + std::to_string(i));
    const auto made = consumer_.connect().call(extendBookmark, {url, app});
    ASSERT_EQ(made.outcome(), "success") << i;
    EXPECT_EQ(made.values[0], Value("docsource:com.example.p/" + identifiers[i])) << i;
    strings.push_back(made.values[0]);
  }
  EXPECT_EQ(file(),
            Value(Dictionary{{p, granting(Array(identifiers.begin(), identifiers.end()))}}));
  EXPECT_TRUE(daemon_->logs("to provide item ID “line\\x0abreaks\\x0d\\x0aand\\x09tabs” to"));
  EXPECT_TRUE(daemon_->logs("to provide item ID “%@ %s %d \\x0a” to"));
  stop();
  const std::string process = "docsourced[";
  for (const auto& line : daemon_->log().all()) {
    EXPECT_NE(line.find(process), std::string::npos) << line;
  }

  start();
  Wire wire = consumer_.connect();
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    const URL url = provider_.url("document " + std::to_string(i));
    EXPECT_EQ(wire.call(startProviding, {url, p, app}).outcome(), "success") << i;
    const auto resolved = wire.call(documentURL, {strings[i]});
    ASSERT_EQ(resolved.outcome(), "success") << i;
    EXPECT_EQ(resolved.values[0], Value(url)) << i;
    auto content = FileManager::readFile(provider_.document("document " + std::to_string(i)));
    EXPECT_EQ(content.ok() ? *content : "", "content of " + identifiers[i]) << i;
  }
}

}  // namespace
}  // namespace qx::test
