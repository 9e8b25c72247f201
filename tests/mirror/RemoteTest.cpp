// What every remote has to do. A new one adds itself to the list at the end.

#include <gtest/gtest.h>

#include "tests/mirror/Servers.h"
#include "tests/mirror/World.h"

namespace {

using namespace docsource;
using namespace docsource::test;
using enum RemoteProblem;
using webdav::test::contentOf;
using webdav::test::problemIn;
using webdav::test::textOf;
using webdav::test::TextSource;

const std::string latin1 = "caf\xe9";

struct Kind {
  std::string name;
  /// One of servers.py; without one it is a directory.
  std::string server = {};
  /// Reached through one that is slow, and has no time for every third request.
  bool isBehindProxy = false;
  bool conditions = false;
  bool times = false;
  /// Does not tell what is in the way of a directory, or sets no time without the content.
  bool isLax = false;
  /// Names that it does not keep.
  std::set<std::string> refused = {};
  /// Names that it keeps, but does not move to.
  std::set<std::string> unmoved = {};
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class RemoteTest : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    if (const auto& kind = GetParam(); !kind.server.empty()) {
      server_.emplace(kind.server);
      if (!server_->runs()) GTEST_SKIP() << server_->says();
      std::string faults = "null";
      for (int i = 0; i < 1000; ++i) faults += i % 3 == 0 ? ",503" : i % 7 == 0 ? ",429" : ",null";
      if (kind.isBehindProxy) server_->tell(R"({"delay": 0.002, "faults": [)" + faults + "]}");
    }
    remote_ = make(base_);
    const auto identity = remote_->identity(true);
    ASSERT_TRUE(identity) << textOf(identity.error());
    identity_ = *identity;
  }
  /// Over what `base` stands for: twice the same for the same one.
  std::unique_ptr<Remote> make(const std::string& base) const {
    fs::create_directories(base);
    return server_ ? server_->documents(base, !GetParam().isBehindProxy) : makeFolderRemote(base);
  }
  /// Where other programs find what it holds.
  std::string files() const { return server_ ? server_->files() + base_ : base_; }

  Result<RemoteItem> write(const std::string& path, const std::string& text,
                           const std::optional<std::string>& ifVersion = std::nullopt,
                           std::optional<RemoteTime> modified = std::nullopt) {
    // As of a document that was changed a while ago, another second each time.
    if (!modified) modified = RemoteTime(std::chrono::seconds(1500000000 + ++written_));
    TextSource source(text);
    return remote_->write(path, ifVersion, {modified, std::nullopt}, source);
  }
  std::string read(const std::string& path, const std::string& version, std::uint64_t offset = 0,
                   std::uint64_t length = UINT64_MAX) {
    return contentOf(*remote_, path, version, offset, length);
  }
  std::string names(const std::string& path = "") {
    std::set<std::string> names;
    const auto listed = remote_->list(path, [&](const RemoteItem& item) {
      EXPECT_TRUE(names.insert(item.name).second) << item.name;
    });
    EXPECT_TRUE(listed) << textOf(listed.error());
    std::string text;
    for (const auto& name : names) text += name + " ";
    return text;
  }

  Scratch scratch_;
  const std::string base_ = scratch_ / "base";
  std::optional<Server> server_;
  std::unique_ptr<Remote> remote_;
  std::string identity_;
  int written_ = 0;
};

TEST_P(RemoteTest, ReplacesAndRemovesOnlyTheVersionThatIsNamed) {
  const auto first = write("a", "first");
  ASSERT_TRUE(first) << first.error().text();
  EXPECT_EQ(first->size, 5U);
  EXPECT_EQ(problemIn(write("a", "again")), changedMeanwhile);
  const auto second = write("a", "the second", first->version);
  ASSERT_TRUE(second);
  EXPECT_NE(second->version, first->version);
  EXPECT_EQ(problemIn(write("a", "third", first->version)), changedMeanwhile);
  EXPECT_EQ(problemIn(write("no", "x", first->version)), notFound);
  EXPECT_TRUE(read("a", first->version).starts_with("error 3:"));
  EXPECT_EQ(read("a", second->version), "the second");
  EXPECT_EQ(read("a", second->version, 4, 3), "sec");
  const auto looked = remote_->look("a");
  ASSERT_TRUE(looked);
  EXPECT_EQ(looked->version, second->version);
  EXPECT_EQ(looked->identifier, second->identifier);
  EXPECT_EQ(problemIn(remote_->remove("a", first->version)), changedMeanwhile);
  EXPECT_EQ(names(), "a ");
  // What ends half-way is not seen, and leaves what was there.
  for (const auto& version : {std::optional(second->version), std::optional<std::string>()}) {
    TextSource broken("half", remoteError(cancelled, "No more."));
    EXPECT_EQ(problemIn(remote_->write(version ? "a" : "b", version, {}, broken)), cancelled);
  }
  EXPECT_EQ(names(), "a ");
  EXPECT_EQ(read("a", second->version), "the second");
  EXPECT_TRUE(remote_->remove("a", second->version));
  EXPECT_EQ(problemIn(remote_->remove("a", second->version)), notFound);
  EXPECT_EQ(problemIn(remote_->look("a")), notFound);
}

TEST_P(RemoteTest, MakesMovesAndRemovesDirectories) {
  ASSERT_TRUE(remote_->makeDirectory("d", {}));
  EXPECT_EQ(problemIn(remote_->makeDirectory("d", {})), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->makeDirectory("no/d", {})), notFound);
  EXPECT_EQ(problemIn(write("no/x", "x")), notFound);
  EXPECT_EQ(problemIn(write("d", "x")), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->list("no", [](const RemoteItem&) {})), notFound);
  EXPECT_EQ(problemIn(remote_->look("no")), notFound);
  EXPECT_EQ(problemIn(remote_->remove("no", std::nullopt)), notFound);
  const auto file = write("d/a b\xc3\xa4", "text");
  ASSERT_TRUE(file);
  const auto other = write("other", "other");
  ASSERT_TRUE(other);
  EXPECT_EQ(problemIn(remote_->remove("d", std::nullopt)), changedMeanwhile);
  const auto inTheWay = problemIn(remote_->move("d", "other", std::nullopt));
  EXPECT_TRUE(inTheWay == changedMeanwhile || (GetParam().isLax && inTheWay == failed));
  EXPECT_EQ(problemIn(remote_->move("other", "d/a b\xc3\xa4", other->version)), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->move("other", "x", file->version)), changedMeanwhile);
  ASSERT_TRUE(remote_->makeDirectory("f", {}));
  EXPECT_EQ(problemIn(remote_->move("d", "f", std::nullopt)), changedMeanwhile);
  const auto same = write("f/a b\xc3\xa4", "another text");
  ASSERT_TRUE(same);
  EXPECT_EQ(problemIn(remote_->move("d", "f", std::nullopt)), changedMeanwhile);
  ASSERT_TRUE(remote_->remove("f/a b\xc3\xa4", same->version));
  ASSERT_TRUE(remote_->remove("f", std::nullopt));
  ASSERT_TRUE(remote_->move("d", "e", std::nullopt));
  const auto moved = remote_->move("other", "e/other", other->version);
  ASSERT_TRUE(moved);
  EXPECT_EQ(names(), "e ");
  EXPECT_EQ(names("e"), "a b\xc3\xa4 other ");
  EXPECT_EQ(read("e/other", moved->version), "other");
  if (remote_->capabilities().identifiers) {
    EXPECT_EQ(moved->identifier, other->identifier);
  }
  EXPECT_EQ(problemIn(remote_->move("other", "z", other->version)), notFound);
  ASSERT_TRUE(remote_->remove("e/other", moved->version));
  const auto looked = remote_->look("e/a b\xc3\xa4");
  ASSERT_TRUE(looked);
  RemoteAttributes attributes{RemoteTime(std::chrono::seconds(1000000)), 0640};
  const auto set = remote_->setAttributes("e/a b\xc3\xa4", looked->version, attributes);
  ASSERT_TRUE(set);
  if (remote_->capabilities().modes) {
    EXPECT_EQ(set->mode, 0640U);
  }
  if (remote_->capabilities().modificationTimes && !GetParam().isLax) {
    EXPECT_EQ(set->modified, attributes.modified);
  }
  ASSERT_TRUE(remote_->remove("e/a b\xc3\xa4", set->version));
  EXPECT_TRUE(remote_->remove("e", std::nullopt));
  EXPECT_EQ(names(), "");
}

/// Where other programs get at what it holds.
class RemoteOnFiles : public RemoteTest {};

TEST_P(RemoteOnFiles, HoldsDocumentsAndLosesNone) {
  const auto can = remote_->capabilities();
  EXPECT_EQ(can.conditions, GetParam().conditions);
  EXPECT_EQ(can.modificationTimes, GetParam().times);
  EXPECT_TRUE(can.ranges);
  const auto entries = [&] { return std::distance(fs::directory_iterator(files()), {}); };
  const auto atFirst = entries();
  for (const char* name : {"a", "d"}) {
    const auto made =
        *name == 'a' ? write(name, "text") : remote_->makeDirectory(name, RemoteAttributes());
    ASSERT_TRUE(made) << textOf(made.error());
    EXPECT_TRUE(remote_->remove(name, *name == 'a' ? std::optional(made->version) : std::nullopt));
  }
  EXPECT_EQ(entries(), atFirst) << "something of ours is left behind";

  // One after the other, as fast as it goes: tags are young.
  auto item = write("a", "one");
  ASSERT_TRUE(item) << textOf(item.error());
  for (const std::string text : {"two", "six", "longer than before"}) {
    const auto before = item->version;
    item = write("a", text, before);
    ASSERT_TRUE(item) << textOf(item.error());
    EXPECT_NE(item->version, before);
    EXPECT_EQ(remote_->look("a")->version, item->version);
    EXPECT_EQ(read("a", item->version), text);
  }
  EXPECT_EQ(read("a", item->version, 12, 100), "before");
  EXPECT_EQ(read("a", item->version, 100, 100), "");

  // Another program's version is seen, and not overwritten by who has not seen it.
  docsource::test::write(files() + "/.other", "longer than behind");
  fs::permissions(files() + "/.other", fs::perms::all);
  // As the clock of a camera or of a build in the wrong year has it.
  fs::last_write_time(files() + "/.other",
                      fs::file_time_type::clock::now() + std::chrono::years(9));
  fs::rename(files() + "/.other", files() + "/a");
  EXPECT_EQ(problemIn(write("a", "lost", item->version)), changedMeanwhile);
  EXPECT_EQ(problemIn(remote_->remove("a", item->version)), changedMeanwhile);
  // (One server goes on with the old one for a second. Of the new version it is not.)
  const auto old = read("a", item->version);
  EXPECT_TRUE(old.starts_with("error 3:") || old == "longer than before") << old;
  EXPECT_EQ(read("a", remote_->look("a")->version), "longer than behind");

  // What turns out not to be whole is never shown, small or large.
  for (const std::size_t size : {5UL, 3000000UL}) {
    for (const std::string name : {"a", "new"}) {
      const auto there = remote_->look(name);
      TextSource broken(std::string(size, 'x'), Error::posix(EIO, "reading"));
      EXPECT_FALSE(
          remote_->write(name, there ? std::optional(there->version) : std::nullopt, {}, broken));
    }
    EXPECT_EQ(names(), "a ");
    EXPECT_EQ(read("a", remote_->look("a")->version), "longer than behind");
  }
  std::string large;
  for (int i = 0; large.size() < 3000000; ++i) large += std::to_string(i) + " ";
  item = write("large", large);
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(read("large", item->version), large);
  item = write("large", large + "!", item->version);
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(read("large", item->version, 2999990), (large + "!").substr(2999990));
  EXPECT_EQ(write("empty", "")->size, 0U);

  const RemoteTime time{std::chrono::seconds(2234567890)};
  item = write("timed", "t", std::nullopt, time);
  ASSERT_TRUE(item) << textOf(item.error());
  if (!GetParam().times) return;
  EXPECT_EQ(item->modified, time);
  // The same time and size, but another content.
  const auto same = write("timed", "u", item->version, time);
  ASSERT_TRUE(same) << textOf(same.error());
  EXPECT_NE(same->version, item->version);
}

TEST_P(RemoteOnFiles, KeepsEveryNameOrRefusesIt) {
  std::set<std::string> kept;
  for (const auto& name :
       {std::string("plain"), std::string("100% #?+ &;=@!$*()"), std::string("\"quotes\" 'too'"),
        std::string("back\\slash"), std::string("<a>&amp;"), std::string("%41"),
        std::string("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80"), std::string("e\xcc\x81"), latin1,
        std::string(".hidden"), std::string("a:b|c"), std::string("~"), std::string(200, 'n')}) {
    const auto item = write(name, name);
    if (GetParam().refused.contains(name)) {
      EXPECT_FALSE(item) << name;
      continue;
    }
    ASSERT_TRUE(item) << name << ": " << textOf(item.error());
    kept.insert(name);
    EXPECT_EQ(read(name, item->version), name);
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
  if (server_) {
    EXPECT_EQ(problemIn(write("two\nlines", "x")), notPermitted);
  }
  std::string all;
  for (const auto& name : kept) all += name + " ";
  EXPECT_EQ(names(), all);
}

TEST_P(RemoteTest, IsKnownAgainAndTellsWhatHasChanged) {
  const auto again = make(base_);
  const auto same = again->identity(false);
  ASSERT_TRUE(same);
  EXPECT_EQ(*same, identity_);
  const auto other = make(scratch_ / "elsewhere")->identity(true);
  ASSERT_TRUE(other);
  EXPECT_NE(*other, identity_);
  const auto start = remote_->changes("");
  ASSERT_TRUE(start);
  EXPECT_EQ(names(), "");
  const auto quiet = remote_->changes(start->cursor);
  ASSERT_TRUE(quiet);
  if (!remote_->capabilities().changes) return;
  EXPECT_FALSE(quiet->everything);
  EXPECT_TRUE(quiet->directories.empty() && quiet->items.empty());
  TextSource source("by another");
  ASSERT_TRUE(again->write("new", std::nullopt, {}, source));
  const auto told = remote_->changes(quiet->cursor);
  ASSERT_TRUE(told);
  EXPECT_TRUE(told->everything || !told->directories.empty() ||
              std::find(told->items.begin(), told->items.end(), "new") != told->items.end());
}

class RemoteBehindAProxy : public RemoteTest {};

/// Whatever answer is an error or is damaged at the first use: an account is never known by
/// anything but what it is known by later.
TEST_P(RemoteBehindAProxy, IsKnownByWhatLastsOrNotYet) {
  Server& server = *server_;
  constexpr int requests = 10;
  for (int at = 0; at < requests; ++at) {
    const auto base = scratch_ / std::to_string(at);
    fs::create_directories(base);
    std::string faults;
    for (int i = 0; i < at; ++i) faults += "null,";
    server.tell(R"({"faults": [)" + faults + "500]}");
    const auto first = server.documents(base, false);
    const auto noted = first->identity(true);
    server.tell(R"({"faults": []})");
    const auto now = first->identity(true);
    const auto other = server.documents(base, true)->identity(true);
    ASSERT_TRUE(now && other) << at;
    EXPECT_EQ(*now, *other) << at;
    EXPECT_EQ(noted ? *noted : *now, *now) << at;
    const auto mark = server.files() + base + "/.docsource-mark";
    if (!fs::exists(mark)) continue;
    auto text = docsource::test::read(mark);
    text[text.size() / 2] = '\0';
    docsource::test::write(mark, text);
    EXPECT_EQ(problemIn(first->identity(false)), unreachable);
  }
}

const Kind onFiles[] = {{"Folder", "", false, false, true},
                        {"Apache", "apache", false, true, false, true},
                        {"Nginx", "nginx", false, false, true, true, {".hidden"}},
                        {"Lighttpd", "lighttpd", false, true, false, false, {}, {latin1}},
                        {"Rclone", "rclone"},
                        {"Sabre", "sabre", false, false, false, false, {latin1}}};
const Kind stores[] = {{"S3Moto", "moto"}, {"S3rver", "s3rver"}};
const Kind behindProxies[] = {{"WebDAV", "lighttpd", true}, {"S3", "moto", true}};

std::string nameOf(const testing::TestParamInfo<Kind>& kind) { return kind.param.name; }
INSTANTIATE_TEST_SUITE_P(OnFiles, RemoteTest, testing::ValuesIn(onFiles), nameOf);
INSTANTIATE_TEST_SUITE_P(Stores, RemoteTest, testing::ValuesIn(stores), nameOf);
INSTANTIATE_TEST_SUITE_P(BehindAProxy, RemoteTest, testing::ValuesIn(behindProxies), nameOf);
INSTANTIATE_TEST_SUITE_P(, RemoteOnFiles, testing::ValuesIn(onFiles), nameOf);
INSTANTIATE_TEST_SUITE_P(, RemoteBehindAProxy, testing::ValuesIn(behindProxies), nameOf);

}  // namespace
