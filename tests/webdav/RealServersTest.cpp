// One and the same day's work with each real server that is installed, as ordinary processes.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "tests/webdav/ServerProcess.h"

namespace docsource::webdav::test {
namespace {

using enum RemoteProblem;

/// What is known of a server, and what it cannot do.
struct Kind {
  std::string name;
  bool conditions = false;
  bool times = false;
  /// Names that it does not keep.
  std::set<std::string> refused = {};
  /// Names that it keeps, but does not move to.
  std::set<std::string> unmoved = {};
};

const std::string latin1 = "caf\xe9";

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class RealServers : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    if (!server_.url()) GTEST_SKIP() << server_.says();
    remote_ = make();
    const auto identity = remote_->identity(true);
    ASSERT_TRUE(identity) << textOf(identity.error());
    identity_ = *identity;
  }

  std::unique_ptr<Remote> make() { return *makeWebDAVRemote(server_.options()); }

  Result<RemoteItem> write(const std::string& path, const std::optional<std::string>& version,
                           const std::string& text) {
    // As of a document that was changed a while ago, another second each time.
    return write(path, version, text, RemoteTime(std::chrono::seconds(1500000000 + ++written_)));
  }
  Result<RemoteItem> write(const std::string& path, const std::optional<std::string>& version,
                           const std::string& text, std::optional<RemoteTime> modified) {
    TextSource source(text);
    return remote_->write(path, version, {modified, std::nullopt}, source);
  }
  std::map<std::string, RemoteItem> list(const std::string& path) {
    std::map<std::string, RemoteItem> items;
    const auto listed = remote_->list(path, [&](const RemoteItem& item) {
      EXPECT_TRUE(items.emplace(item.name, item).second) << item.name;
    });
    EXPECT_TRUE(listed) << textOf(listed.error());
    return items;
  }
  std::set<std::string> names(const std::string& path) {
    std::set<std::string> names;
    for (const auto& [name, item] : list(path)) names.insert(name);
    return names;
  }
  /// As another program on the server's machine.
  void writeThere(const std::string& path, const std::string& text) {
    const auto file = server_.files() + "/" + path;
    std::ofstream(file + ".other") << text;
    std::filesystem::permissions(file + ".other", std::filesystem::perms::all);
    std::filesystem::rename(file + ".other", file);
  }

  ServerProcess server_{GetParam().name, SERVERS};
  std::unique_ptr<Remote> remote_;
  std::string identity_;
  int written_ = 0;
};

TEST_P(RealServers, HoldsDocumentsAndLosesNone) {
  const auto& kind = GetParam();
  EXPECT_EQ(*remote_->identity(false), identity_);
  EXPECT_EQ(*make()->identity(true), identity_) << "a second machine";
  const auto can = remote_->capabilities();
  EXPECT_EQ(can.conditions, kind.conditions);
  EXPECT_EQ(can.modificationTimes, kind.times);
  EXPECT_TRUE(can.ranges);
  EXPECT_EQ(names(""), std::set<std::string>{});

  // One after the other, as fast as it goes: tags are young.
  auto item = write("a", std::nullopt, "one");
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(problemIn(write("a", std::nullopt, "two")), changedMeanwhile);
  const auto first = item->version;
  for (const std::string text : {"two", "six", "longer than before"}) {
    const auto before = item->version;
    item = write("a", before, text);
    ASSERT_TRUE(item) << textOf(item.error());
    EXPECT_NE(item->version, before);
    EXPECT_EQ(remote_->look("a")->version, item->version);
    EXPECT_EQ(contentOf(*remote_, "a", item->version), text);
  }
  EXPECT_EQ(problemIn(write("a", first, "late")), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->remove("a", first)), changedMeanwhile);
  EXPECT_TRUE(contentOf(*remote_, "a", first).starts_with("error 3:"));
  EXPECT_EQ(contentOf(*remote_, "a", item->version, 7, 4), "than");
  EXPECT_EQ(contentOf(*remote_, "a", item->version, 12, 100), "before");
  EXPECT_EQ(contentOf(*remote_, "a", item->version, 100, 100), "");

  // Somebody else's version is seen, and not overwritten by who has not seen it.
  writeThere("a", "longer than behind");
  EXPECT_EQ(problemIn(write("a", item->version, "lost")), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->remove("a", item->version)), changedMeanwhile);
  // (One server goes on with the old one for a second. Of the new version it is not.)
  const auto old = contentOf(*remote_, "a", item->version);
  EXPECT_TRUE(old.starts_with("error 3:") || old == "longer than before") << old;
  EXPECT_EQ(contentOf(*remote_, "a", remote_->look("a")->version), "longer than behind");

  // What turns out not to be whole is never shown, small or large.
  for (const std::size_t size : {5UL, 3000000UL}) {
    TextSource broken(std::string(size, 'x'), Error::posix(EIO, "reading"));
    EXPECT_FALSE(remote_->write("a", remote_->look("a")->version, {}, broken));
    TextSource brokenToo(std::string(size, 'x'), Error::posix(EIO, "reading"));
    EXPECT_FALSE(remote_->write("new", std::nullopt, {}, brokenToo));
    EXPECT_EQ(names(""), std::set<std::string>{"a"});
    EXPECT_EQ(contentOf(*remote_, "a", remote_->look("a")->version), "longer than behind");
  }
  std::string large;
  for (int i = 0; large.size() < 3000000; ++i) large += std::to_string(i) + " ";
  item = write("large", std::nullopt, large);
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(contentOf(*remote_, "large", item->version), large);
  item = write("large", item->version, large + "!");
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(contentOf(*remote_, "large", item->version, 2999990), (large + "!").substr(2999990));
  EXPECT_EQ(write("empty", std::nullopt, "")->size, 0U);

  const RemoteTime time{std::chrono::seconds(1234567890)};
  item = write("timed", std::nullopt, "t", time);
  ASSERT_TRUE(item) << textOf(item.error());
  if (kind.times) {
    EXPECT_EQ(item->modified, time);
    // The same time and size, but another content.
    const auto same = write("timed", item->version, "u", time);
    ASSERT_TRUE(same) << textOf(same.error());
    EXPECT_NE(same->version, item->version);
  }
}

TEST_P(RealServers, HasDirectoriesAndMovesThem) {
  ASSERT_TRUE(remote_->makeDirectory("d", {}));
  EXPECT_EQ(problemIn(remote_->makeDirectory("d", {})), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->makeDirectory("none/d", {})), notFound);
  EXPECT_EQ(problemIn(write("none/x", std::nullopt, "x")), notFound);
  EXPECT_EQ(problemIn(write("d", std::nullopt, "x")), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->list("none", [](const RemoteItem&) {})), notFound);
  EXPECT_EQ(problemIn(remote_->look("none")), notFound);
  EXPECT_EQ(problemIn(remote_->remove("none", std::nullopt)), notFound);
  const auto file = write("d/x", std::nullopt, "x");
  ASSERT_TRUE(file) << textOf(file.error());
  EXPECT_EQ(list("")["d"].kind, RemoteKind::directory);
  EXPECT_EQ(list("d")["x"].version, file->version);

  EXPECT_EQ(problemIn(remote_->remove("d", std::nullopt)), changedMeanwhile);
  EXPECT_EQ(names("d"), std::set<std::string>{"x"});
  ASSERT_TRUE(remote_->makeDirectory("e", {}));
  EXPECT_EQ(problemIn(remote_->move("d", "e", std::nullopt)), changedMeanwhile);
  const auto moved = remote_->move("d", "e/f g", std::nullopt);
  ASSERT_TRUE(moved) << textOf(moved.error());
  EXPECT_EQ(moved->name, "f g");
  EXPECT_EQ(names("e/f g"), std::set<std::string>{"x"});

  const auto other = write("other", std::nullopt, "other");
  EXPECT_EQ(problemIn(remote_->move("e/f g/x", "other", file->version)), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->move("e/f g/x", "y", other->version)), changedMeanwhile);
  const auto away = remote_->move("e/f g/x", "y", list("e/f g")["x"].version);
  ASSERT_TRUE(away) << textOf(away.error());
  EXPECT_EQ(contentOf(*remote_, "y", away->version), "x");
  EXPECT_EQ(problemIn(remote_->move("e/f g/x", "z", file->version)), notFound);

  // A directory that is not removed is where it was, with what somebody put into it.
  EXPECT_TRUE(remote_->remove("e/f g", std::nullopt));
  EXPECT_TRUE(remote_->remove("y", away->version));
  EXPECT_EQ(problemIn(remote_->remove("y", away->version)), notFound);
  EXPECT_TRUE(remote_->remove("other", other->version));
  EXPECT_TRUE(remote_->remove("e", std::nullopt));
  EXPECT_EQ(names(""), std::set<std::string>{});
  std::set<std::string> left;
  for (const auto& each : std::filesystem::directory_iterator(server_.files())) {
    left.insert(each.path().filename());
  }
  left.erase("lost+found");
  EXPECT_EQ(left, std::set<std::string>{".docsource-mark"}) << "nothing of ours is left behind";
}

TEST_P(RealServers, KeepsEveryNameOrRefusesIt) {
  std::set<std::string> kept;
  const std::set<std::string> all{"plain",
                                  "100% #?+ &;=@!$*()",
                                  "\"quotes\" 'too'",
                                  "back\\slash",
                                  "<a>&amp;",
                                  "%41",
                                  "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80",
                                  "e\xcc\x81",
                                  latin1,
                                  ".hidden",
                                  "a:b|c",
                                  "~",
                                  std::string(200, 'n')};
  for (const auto& name : all) {
    const auto item = write(name, std::nullopt, name);
    if (GetParam().refused.contains(name)) {
      EXPECT_FALSE(item) << name;
      continue;
    }
    ASSERT_TRUE(item) << name << ": " << textOf(item.error());
    kept.insert(name);
    EXPECT_EQ(contentOf(*remote_, name, item->version), name);
    ASSERT_TRUE(remote_->makeDirectory(name + "d", {})) << name;
    kept.insert(name + "d");
    const auto inside = remote_->move(name, name + "d/" + name, item->version);
    if (GetParam().unmoved.contains(name)) {
      EXPECT_EQ(problemIn(inside), notPermitted);
      continue;
    }
    ASSERT_TRUE(inside) << name << ": " << textOf(inside.error());
    const auto back = remote_->move(name + "d/" + name, name, inside->version);
    EXPECT_TRUE(back) << name << ": " << textOf(back.error());
  }
  EXPECT_EQ(problemIn(write("two\nlines", std::nullopt, "x")), notPermitted);
  EXPECT_EQ(names(""), kept);
}

INSTANTIATE_TEST_SUITE_P(Of, RealServers,
                         testing::Values(Kind{"apache", true, false},
                                         Kind{"nginx", false, true, {".hidden"}},
                                         Kind{"lighttpd", true, false, {}, {latin1}},
                                         Kind{"rclone", false, false},
                                         Kind{"sabre", false, false, {latin1}}),
                         [](const auto& of) { return of.param.name; });

}  // namespace
}  // namespace docsource::webdav::test
