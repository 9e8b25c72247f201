// What every remote has to do. A new one adds itself to the list at the end.

#include <gtest/gtest.h>

#include "tests/mirror/Servers.h"
#include "tests/mirror/World.h"

namespace {

using namespace docsource;
using namespace docsource::test;

struct Kind {
  std::string name;
  /// Over what `base` stands for: twice the same for the same one. Null when there is no such
  /// server.
  std::function<std::unique_ptr<Remote>(const std::string& base)> make;
  /// The one behind a proxy; null for others.
  Server* (*server)() = nullptr;
};

class Text final : public RemoteSource {
 public:
  explicit Text(std::string text, bool fails = false) : text_(std::move(text)), fails_(fails) {}
  std::uint64_t size() const override { return text_.size(); }
  Result<std::string_view> read(std::size_t) override {
    if (isRead_ && fails_) return remoteError(RemoteProblem::cancelled, "No more.");
    return std::exchange(isRead_, true) ? std::string_view() : std::string_view(text_);
  }

 private:
  const std::string text_;
  const bool fails_;
  bool isRead_ = false;
};

class RemoteTest : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    fs::create_directories(base_);
    remote_ = GetParam().make(base_);
    if (!remote_) GTEST_SKIP() << "its server is not installed";
    const auto identity = remote_->identity(true);
    EXPECT_TRUE(identity) << identity.error().text();
    identity_ = identity ? *identity : "";
  }
  Result<RemoteItem> write(const std::string& path, const std::string& text,
                           const std::optional<std::string>& ifVersion = std::nullopt) {
    Text source(text);
    return remote_->write(path, ifVersion, {}, source);
  }
  std::string read(const std::string& path, const std::string& version, std::uint64_t offset = 0,
                   std::uint64_t length = 1000) {
    std::string text;
    const auto read = remote_->read(path, version, offset, length, [&](std::string_view bytes) {
      text += bytes;
      return Result<void>();
    });
    return read ? text : "! " + std::to_string(read.error().code());
  }
  std::string names(const std::string& path = "") {
    std::set<std::string> names;
    const auto listed =
        remote_->list(path, [&](const RemoteItem& item) { names.insert(item.name); });
    if (!listed) return "! " + std::to_string(listed.error().code());
    std::string text;
    for (const auto& name : names) text += name + " ";
    return text;
  }
  template <class T>
  static RemoteProblem problem(const Result<T>& result) {
    return result ? RemoteProblem::failed : remoteProblemOf(result.error());
  }

  Scratch scratch_;
  const std::string base_ = scratch_ / "base";
  std::unique_ptr<Remote> remote_;
  std::string identity_;
};

TEST_P(RemoteTest, ReplacesAndRemovesOnlyTheVersionThatIsNamed) {
  const auto first = write("a", "first");
  ASSERT_TRUE(first) << first.error().text();
  EXPECT_EQ(first->size, 5U);
  EXPECT_EQ(problem(write("a", "again")), RemoteProblem::changedMeanwhile);
  const auto second = write("a", "the second", first->version);
  ASSERT_TRUE(second);
  EXPECT_NE(second->version, first->version);
  EXPECT_EQ(problem(write("a", "third", first->version)), RemoteProblem::changedMeanwhile);
  EXPECT_EQ(problem(write("no", "x", first->version)), RemoteProblem::notFound);
  EXPECT_EQ(read("a", first->version),
            "! " + std::to_string(static_cast<int>(RemoteProblem::changedMeanwhile)));
  EXPECT_EQ(read("a", second->version), "the second");
  EXPECT_EQ(read("a", second->version, 4, 3), "sec");
  const auto looked = remote_->look("a");
  ASSERT_TRUE(looked);
  EXPECT_EQ(looked->version, second->version);
  EXPECT_EQ(looked->identifier, second->identifier);
  EXPECT_EQ(problem(remote_->remove("a", first->version)), RemoteProblem::changedMeanwhile);
  EXPECT_EQ(names(), "a ");
  // What ends half-way is not seen, and leaves what was there.
  for (const auto& version : {std::optional(second->version), std::optional<std::string>()}) {
    Text broken("half", true);
    EXPECT_EQ(problem(remote_->write(version ? "a" : "b", version, {}, broken)),
              RemoteProblem::cancelled);
  }
  EXPECT_EQ(names(), "a ");
  EXPECT_EQ(read("a", second->version), "the second");
  EXPECT_TRUE(remote_->remove("a", second->version));
  EXPECT_EQ(problem(remote_->remove("a", second->version)), RemoteProblem::notFound);
  EXPECT_EQ(problem(remote_->look("a")), RemoteProblem::notFound);
}

TEST_P(RemoteTest, MakesMovesAndRemovesDirectories) {
  ASSERT_TRUE(remote_->makeDirectory("d", {}));
  EXPECT_EQ(problem(remote_->makeDirectory("d", {})), RemoteProblem::changedMeanwhile);
  EXPECT_EQ(problem(remote_->makeDirectory("no/d", {})), RemoteProblem::notFound);
  const auto file = write("d/a b\xc3\xa4", "text");
  ASSERT_TRUE(file);
  const auto other = write("other", "other");
  ASSERT_TRUE(other);
  EXPECT_EQ(problem(remote_->remove("d", std::nullopt)), RemoteProblem::changedMeanwhile);
  EXPECT_EQ(problem(remote_->move("d", "other", std::nullopt)), RemoteProblem::changedMeanwhile);
  EXPECT_EQ(problem(remote_->move("other", "d/a b\xc3\xa4", other->version)),
            RemoteProblem::changedMeanwhile);
  EXPECT_EQ(problem(remote_->move("other", "x", file->version)), RemoteProblem::changedMeanwhile);
  ASSERT_TRUE(remote_->move("d", "e", std::nullopt));
  const auto moved = remote_->move("other", "e/other", other->version);
  ASSERT_TRUE(moved);
  EXPECT_EQ(names(), "e ");
  EXPECT_EQ(names("e"), "a b\xc3\xa4 other ");
  EXPECT_EQ(read("e/other", moved->version), "other");
  if (remote_->capabilities().identifiers) {
    EXPECT_EQ(moved->identifier, other->identifier);
  }
  EXPECT_EQ(names("d"), "! " + std::to_string(static_cast<int>(RemoteProblem::notFound)));
  ASSERT_TRUE(remote_->remove("e/other", moved->version));
  const auto looked = remote_->look("e/a b\xc3\xa4");
  ASSERT_TRUE(looked);
  RemoteAttributes attributes{RemoteTime(std::chrono::seconds(1000000)), 0640};
  const auto set = remote_->setAttributes("e/a b\xc3\xa4", looked->version, attributes);
  ASSERT_TRUE(set);
  if (remote_->capabilities().modes) {
    EXPECT_EQ(set->mode, 0640U);
  }
  if (remote_->capabilities().modificationTimes) {
    EXPECT_EQ(set->modified, attributes.modified);
  }
  ASSERT_TRUE(remote_->remove("e/a b\xc3\xa4", set->version));
  EXPECT_TRUE(remote_->remove("e", std::nullopt));
  EXPECT_EQ(names(), "");
}

TEST_P(RemoteTest, IsKnownAgainAndTellsWhatHasChanged) {
  const auto again = GetParam().make(base_);
  const auto same = again->identity(false);
  ASSERT_TRUE(same);
  EXPECT_EQ(*same, identity_);
  const auto otherBase = scratch_ / "elsewhere";
  fs::create_directories(otherBase);
  const auto other = GetParam().make(otherBase)->identity(true);
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
  Text source("by another");
  ASSERT_TRUE(again->write("new", std::nullopt, {}, source));
  const auto told = remote_->changes(quiet->cursor);
  ASSERT_TRUE(told);
  EXPECT_TRUE(told->everything || !told->directories.empty() ||
              std::find(told->items.begin(), told->items.end(), "new") != told->items.end());
}

/// Whatever answer is an error or is damaged at the first use: an account is never known by
/// anything but what it is known by later.
TEST_P(RemoteTest, IsKnownByWhatLastsOrNotYet) {
  if (!GetParam().server) GTEST_SKIP() << "nothing stands before it";
  Server& server = *GetParam().server();
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
    EXPECT_EQ(problem(first->identity(false)), RemoteProblem::unreachable);
  }
}

/// Behind a proxy that is slow, and has no time for every third request.
std::unique_ptr<Remote> behindAProxy(Server& server, const std::string& base) {
  if (!server.runs()) return nullptr;
  std::string faults = "null";
  for (int i = 0; i < 1000; ++i) faults += i % 3 == 0 ? ",503" : i % 7 == 0 ? ",429" : ",null";
  server.tell(R"({"delay": 0.002, "faults": [)" + faults + "]}");
  return server.documents(base, false);
}

Server* lighttpd() {
  static Server server("lighttpd");
  return &server;
}
Server* moto() {
  static Server server("moto");
  return &server;
}

const Kind kinds[] = {
    {"Folder", [](const std::string& base) { return makeFolderRemote(base); }},
    {"WebDAV",
     [](const std::string& base) {
       static const Server server("rclone");
       return server.documents(base, true);
     }},
    {"WebDAVBehindAProxy", [](const std::string& base) { return behindAProxy(*lighttpd(), base); },
     lighttpd},
    {"S3BehindAProxy", [](const std::string& base) { return behindAProxy(*moto(), base); }, moto},
    {"S3Moto",
     [](const std::string& base) {
       static const Server server("moto");
       return server.documents(base, true);
     }},
    {"S3rver", [](const std::string& base) {
       static const Server server("s3rver");
       return server.documents(base, true);
     }}};

INSTANTIATE_TEST_SUITE_P(Remotes, RemoteTest, testing::ValuesIn(kinds),
                         [](const auto& kind) { return kind.param.name; });

}  // namespace
