// What servers, proxies and networks do wrong, one after the other, by a server that does it on
// demand: what must come of each is that nothing is taken for a document that is none, and that
// nothing is overwritten or forgotten.

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "tests/webdav/ServerProcess.h"

namespace docsource::webdav::test {
namespace {

using enum RemoteProblem;
using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string content = "0123456789abcdefghij";

class Scripted {
 public:
  explicit Scripted(const std::string& kind = "plain") : server_(kind, SCRIPTED) {
    remote_ = make();
    EXPECT_TRUE(remote_->identity(true));
    tell(R"({"files": {"a": ")" + content + R"("}})");
  }

  /// Waits take no time, and are noted.
  std::unique_ptr<Remote> make() {
    auto options = server_.options();
    options.connection.patience = seconds(1);
    options.connection.wait = [this](milliseconds time) {
      waited_ += time;
      return true;
    };
    options.connection.secret = [this] { return Result<std::string>(password_); };
    options.partSize = 8;
    return *makeWebDAVRemote(std::move(options));
  }

  /// Returns the requests since the last time.
  std::string tell(std::string what) {
    std::replace(what.begin(), what.end(), '\n', ' ');
    return server_.ask(what);
  }
  void faults(const std::string& list) { tell(R"({"faults": [)" + list + "]}"); }
  std::string requests() { return tell("{}"); }
  std::size_t count(const std::string& part) {
    const auto all = requests();
    std::size_t found = 0;
    for (auto at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) ++found;
    return found;
  }

  Remote& operator*() { return *remote_; }
  Remote* operator->() { return remote_.get(); }
  std::string version(const std::string& path = "a") {
    const auto item = remote_->look(path);
    return item ? item->version : textOf(item.error());
  }
  std::string read(std::uint64_t offset = 0, std::uint64_t length = UINT64_MAX) {
    return contentOf(*remote_, "a", version(), offset, length);
  }
  Result<RemoteItem> write(const std::string& path, const std::optional<std::string>& version,
                           const std::string& text) {
    TextSource source(text);
    return remote_->write(path, version, {}, source);
  }
  std::map<std::string, RemoteItem> list(const std::string& path = "") {
    std::map<std::string, RemoteItem> items;
    const auto listed =
        remote_->list(path, [&](const RemoteItem& item) { items.emplace(item.name, item); });
    EXPECT_TRUE(listed) << textOf(listed.error());
    return items;
  }
  std::string port() {
    const auto url = server_.url().value_or("");
    const auto at = url.rfind(':') + 1;
    return url.substr(at, url.find('/', at) - at);
  }
  milliseconds waited() { return std::exchange(waited_, {}); }
  std::string password_ = "pass word";

 private:
  milliseconds waited_{};
  ServerProcess server_;
  std::unique_ptr<Remote> remote_;
};

TEST(ScriptedServer, WhatIsReadIsTheDocumentOrAnError) {
  Scripted server;
  struct Case {
    std::string fault;
    /// Beginning of what comes of it.
    std::string whole;
    std::string part;
  };
  const std::string part = content.substr(5, 10);
  const auto port = server.port();
  for (const Case& each : std::initializer_list<Case>{
           {R"("norange": true)", content, part},
           {R"("notag": true)", content, part},
           {R"("notag": true, "norange": true)", content, part},
           {R"("weak": true)", content, part},
           // Broken off, again and again: it goes on from there.
           {R"("cut": 7)", content, part},
           {R"("cut": 7, "norange": true, "times": 1)", content, part},
           {R"("lie": 5)", "error 8", part},
           {R"("status": 200, "body": "<html>Log in to this network</html>")", "error 8",
            "error 8"},
           // As long as the document, and as a part of it.
           {R"("status": 200, "body": "<html>......</html>", "headers": {"ETag": "\"x\""})",
            "error 8", "error 8"},
           {R"("status": 206, "body": "0123456789", "headers": {"Content-Range": "bytes 0-9/20"})",
            "error 8", "error 8"},
           {R"("status": 206, "body": "0123456789", "headers": {})", "error 8", "error 8"},
           {R"("status": 206, "body": "0123456789abcdefghij", "headers":)"
            R"( {"Content-Range": "bytes 18446744073709551616-19/20"})",
            "error 8", "error 8"},
           // As slow as a line is.
           {R"("drip": 0.1)", content, part},
           {R"("status": 204)", "error 8", "error 8"},
           {R"("status": 416)", "error 8", "error 8"},
           {R"("status": 404)", "error 2", "error 2"},
           {R"("status": 403)", "error 4", "error 4"},
           {R"("status": 500)", "error 1", "error 1"},
           {R"("status": 502)", "error 8", "error 8"},
           {R"("status": 502, "times": 2)", content, part},
           {R"("status": 302, "headers": {"Location": "/elsewhere"}, "path": "a")", "error 2",
            "error 2"},
           {R"("status": 302, "times": 1, "headers": {"Location": "http://localhost:)" + port +
                R"(/dav/a"})",
            "error 1", "error 1"},
       }) {
    for (const auto& [offset, length, expected] :
         {std::tuple(0UL, UINT64_MAX, each.whole), std::tuple(5UL, 10UL, each.part)}) {
      const auto version = server.version();
      ASSERT_EQ(contentOf(*server, "a", version, offset, length), content.substr(offset, length));
      server.faults(R"({"method": "GET", )" + each.fault + "}");
      EXPECT_TRUE(contentOf(*server, "a", version, offset, length).starts_with(expected))
          << each.fault << ": " << contentOf(*server, "a", version, offset, length);
      server.faults("");
    }
  }
  // Replaced by another of the same length while it is read.
  const auto version = server.version();
  server.faults(R"({"method": "GET", "cut": 7, "times": 1, "replace": "ABCDEFGHIJabcdefghij"})");
  EXPECT_TRUE(contentOf(*server, "a", version).starts_with("error 3"));
  // A sink that has enough is no broken connection.
  unsigned pieces = 0;
  server.requests();
  const auto given = server->read("a", server.version(), 0, 20, [&](std::string_view) {
    ++pieces;
    return Result<void>(Error::posix(ENOSPC, "writing"));
  });
  EXPECT_EQ(given.error().code(), ENOSPC);
  EXPECT_EQ(pieces, 1U);
  EXPECT_EQ(server.count("GET"), 1U);
}

TEST(ScriptedServer, AListingIsWholeOrAnError) {
  Scripted server;
  server.tell(R"({"files": {"d/": "", "d/x y": "1", "d/100%25": "2", "d/gr\u00fc\u00df": "3",
                            "d/e/": "", "d/e/deep": "4"}})");
  const auto names = [&] {
    std::string all;
    for (const auto& [name, item] : server.list("d")) {
      all += name + (item.kind == RemoteKind::directory ? "/" : "") + " " + item.version + ",";
    }
    return all;
  };
  const auto expected = names();
  EXPECT_EQ(std::count(expected.begin(), expected.end(), ','), 4) << expected;
  for (const std::string kind : {"absolute", "lower", "raw"}) {
    server.faults(R"({"method": "PROPFIND", "href": ")" + kind + R"("})");
    EXPECT_EQ(names(), expected) << kind;
  }
  for (
      const auto& fault : std::initializer_list<std::string>{
          R"("cut": 400)", R"("status": 200, "body": "<html>Welcome</html>")",
          R"("status": 207, "body": "<html>Welcome</html>")", R"("status": 207, "body": "")",
          R"("status": 207, "body": "<multistatus xmlns=\"DAV:\"/>")",
          R"("status": 207, "body": "<!DOCTYPE x [<!ENTITY a \"b\">]><multistatus xmlns=\"DAV:\"/>")",
          R"("status": 207, "body": "<multistatus xmlns=\"DAV:\"><!--)" +
              std::string(2UL << 20U, 'x') +
              R"(--><response><href>/dav/d</href><propstat><prop><resourcetype><collection/>)"
              R"(</resourcetype></prop><status>HTTP/1.1 200 OK</status></propstat></response>)"
              R"(</multistatus>")",
          R"("status": 500)",
          // It would hold everything else up.
          R"("drip": 0.1, "times": 1)",
          R"("status": 207, "body": "x", "headers": {"X-Much": ")" + std::string(99'000, 'x') +
              R"("})",
          R"("status": 207, "body": "x", "headers": {"X-More": ")" + std::string(200'000, 'x') +
              R"("})",
          R"("status": 301, "headers": {"Location": "/dav/d/e/"}, "times": 1)"}) {
    server.faults(R"({"method": "PROPFIND", )" + fault + "}");
    const auto listed = server->list("d", [](const RemoteItem&) {});
    ASSERT_FALSE(listed) << fault;
    EXPECT_EQ(textOf(listed.error()).find("memory"), std::string::npos) << fault;
  }
  // What is wrong with one entry is told of that one, and hides no other.
  for (const std::string child : {"403", "500", R"("-1")", R"("18446744073709551616")",
                                  R"("9223372036854775808")", R"("many")", R"("")"}) {
    server.faults(R"({"method": "PROPFIND", "child": ["x y", )" + child + "]}");
    const auto items = server.list("d");
    ASSERT_EQ(items.count("x y"), 1U) << child;
    EXPECT_TRUE(items.at("x y").trouble) << child;
    EXPECT_EQ(std::count_if(items.begin(), items.end(),
                            [](const auto& each) { return !each.second.trouble; }),
              3)
        << child;
    EXPECT_FALSE(server->look("d/x y").ok() && child[0] == '"') << child;
  }
  server.faults(R"({"method": "PROPFIND", "child": ["x y", 404]})");
  EXPECT_EQ(server.list("d").count("x y"), 0U) << "went while it was listed";
  server.faults("");
  // A redirection within the server, and a clock that is years wrong.
  server.tell(R"({"clock": -100000000})");
  server.faults(R"({"method": "PROPFIND", "path": "d", "times": 1, "status": 301,
                    "headers": {"Location": "/dav/d/"}})");
  EXPECT_EQ(names(), expected);
}

TEST(ScriptedServer, WhatIsWrittenIsKnownByItsOwnVersion) {
  Scripted server;
  auto item = server.write("new", std::nullopt, "mine");
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(item->version, server.version("new"));

  // Somebody writes as many bytes between our upload and our look at it. Theirs is not ours.
  server.faults(R"({"method": "MOVE", "times": 1, "replace": "them"})");
  item = server.write("new", item->version, "us!!");
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_NE(item->version, server.version("new"));
  EXPECT_EQ(problemIn(server.write("new", item->version, "late")), changedMeanwhile);
  EXPECT_EQ(contentOf(*server, "new", server.version("new")), "them");

  // An upload that the server keeps half, loses, or refuses leaves the old version and nothing
  // else.
  const auto before = server.list();
  for (const auto& [fault, problem] : std::initializer_list<std::pair<std::string, RemoteProblem>>{
           {R"("status": 201)", notFound},
           {R"("status": 200, "body": "<html>Welcome</html>")", notFound},
           {R"("replace": "ha")", failed},
           {R"("status": 507)", noRoom},
           {R"("status": 413)", failed},
           {R"("status": 423)", failed},
           {R"("status": 403)", notPermitted},
           {R"("status": 500)", failed},
           {R"("status": 502)", failed}}) {
    server.faults(R"({"method": "PUT", )" + fault + "}");
    EXPECT_EQ(problemIn(server.write("a", before.at("a").version, "x")), problem) << fault;
    server.faults("");
    EXPECT_EQ(server.list().size(), before.size()) << fault;
    EXPECT_EQ(server.version(), before.at("a").version) << fault;
  }
  // The last step is refused, or what came of it is unknown.
  for (
      const auto& [fault, problem] : std::initializer_list<std::pair<std::string, RemoteProblem>>{
          {R"("status": 412)", changedMeanwhile},
          {R"("status": 504)", failed},
          {R"("status": 502)", failed},
          {R"("status": 207, "body": "<multistatus xmlns=\"DAV:\"><response><href>/</href><status>HTTP/1.1 423 L</status></response></multistatus>")",
           failed}}) {
    server.faults(R"({"method": "MOVE", )" + fault + "}");
    EXPECT_EQ(problemIn(server.write("a", before.at("a").version, "x")), problem) << fault;
    server.faults("");
    EXPECT_EQ(server.version(), before.at("a").version) << fault;
    EXPECT_EQ(server.list().size(), before.size()) << fault;
  }
}

TEST(ScriptedServer, ADirectoryIsOnlyRemovedEmpty) {
  Scripted server;
  server.tell(R"({"files": {"d/": ""}})");
  // Somebody puts a document into it after it was seen to be empty.
  server.faults(R"({"method": "MOVE", "times": 1, "replace": "x"})");
  EXPECT_EQ(problemIn(server->remove("d", std::nullopt)), changedMeanwhile);
  EXPECT_EQ(server.list("d").count("late"), 1U);
  server.tell(R"({"files": {"d/late": null}})");
  // A page that says that all is well.
  server.faults(R"({"method": "DELETE", "status": 200, "body": "<html>Welcome</html>"})");
  EXPECT_EQ(problemIn(server->remove("d", std::nullopt)), failed);
}

TEST(ScriptedServer, WaitsAsLongAsTheServerWants) {
  Scripted server;
  const auto version = server.version();
  server.waited();
  // Soon is waited for here, for everything, an upload too.
  server.faults(R"({"method": "GET", "status": 503, "times": 1, "headers": {"Retry-After": "3"}})");
  EXPECT_EQ(contentOf(*server, "a", version), content);
  EXPECT_GE(server.waited(), seconds(3));
  server.faults(R"({"method": "PUT", "status": 425, "times": 1},)"
                R"({"method": "MOVE", "status": 429, "times": 1})");
  EXPECT_TRUE(server.write("b", std::nullopt, "b"));

  // Later is left to who asks, and nothing is asked until then. A date counts by the server's
  // clock.
  server.tell(R"({"clock": 500000000})");
  const auto then =
      std::chrono::floor<seconds>(std::chrono::system_clock::now()) + seconds(500000000 + 120);
  const std::time_t time = std::chrono::system_clock::to_time_t(then);
  std::array<char, 64> text{};
  std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&time));
  server.faults(R"({"method": "GET", "status": 503, "headers": {"Retry-After": ")" +
                std::string(text.data()) + R"("}})");
  const auto put =
      server->read("a", version, 0, 5, [](std::string_view) { return Result<void>(); });
  EXPECT_EQ(problemIn(put), notNow);
  ASSERT_TRUE(remoteRetryAfter(put.error()));
  EXPECT_NEAR(static_cast<double>(remoteRetryAfter(put.error())->count()), 120, 3);
  server.requests();
  const auto later = server->look("a");
  EXPECT_EQ(problemIn(later), notNow);
  EXPECT_GT(*remoteRetryAfter(later.error()), seconds(100));
  EXPECT_EQ(server.requests(), "[]");
}

TEST(ScriptedServer, SaysWhoAsksAndNeverTheSecret) {
  Scripted server;
  server.tell(R"({"digest": true, "secret": "pass word"})");
  EXPECT_EQ(server.read(), content);
  EXPECT_TRUE(server.write("b", std::nullopt, std::string(3000000, 'b')));
  // Changed where it is kept, and changed at the server only.
  server.tell(R"({"secret": "other secret"})");
  server.password_ = "other secret";
  EXPECT_EQ(server.read(), content);
  server.tell(R"({"secret": "yet another"})");
  const auto refused = server->look("a");
  EXPECT_EQ(problemIn(refused), notAuthorised);
  EXPECT_EQ(textOf(refused.error()).find("other secret"), std::string::npos);

  WebDAVOptions options;
  for (const std::string url : {"http://user:geheim@h/", "ftp://h/", "http://h/?q", "", "h"}) {
    options.url = url;
    const auto made = makeWebDAVRemote(options);
    ASSERT_FALSE(made) << url;
    EXPECT_EQ(textOf(made.error()).find("geheim"), std::string::npos);
  }
}

TEST(ScriptedServer, UsesWhatACloudAnnounces) {
  Scripted server("cloud");
  const auto can = server->capabilities();
  EXPECT_TRUE(can.identifiers && can.conditions && can.changes && can.modificationTimes);
  EXPECT_TRUE((*server->identity(true)).starts_with("id:"));
  server.tell(R"({"files": {"d/": "", "d/e/": "", "d/e/x": "x", "f/": ""}})");
  for (const std::string path : {"", "d", "d/e", "f"}) server.list(path);
  const auto first = server->changes("");
  ASSERT_TRUE(first) << textOf(first.error());
  const auto cursor = first->cursor;
  server.requests();
  EXPECT_TRUE(server->changes(cursor)->directories.empty());
  EXPECT_EQ(server.count("PROPFIND"), 1U) << "nothing has changed";
  server.tell(R"({"files": {"d/e/x": "changed", "g/": "", "g/y": "y"}})");
  std::string paths;
  const auto changes = server->changes(cursor);
  ASSERT_TRUE(changes) << textOf(changes.error());
  for (const auto& each : changes->directories) {
    paths += each.path + (each.recursive ? "+" : "") + ",";
  }
  EXPECT_EQ(paths, ",g+,d,d/e,");
  server.tell(R"({"files": {"d/": ""}})");

  // Times, and an identifier that stays; in place, on condition of the version.
  TextSource source("small");
  auto item = server->write("s", std::nullopt, {RemoteTime(seconds(1234567890)), {}}, source);
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(item->modified, RemoteTime(seconds(1234567890)));
  const auto identifier = item->identifier;
  item = server->setAttributes("s", item->version, {RemoteTime(seconds(1111111111)), {}});
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(item->modified, RemoteTime(seconds(1111111111)));
  EXPECT_EQ(item->identifier, identifier);
  // Somebody writes between the upload and the look at it: the version is the upload's.
  server.faults(R"({"method": "PUT", "times": 1, "replace": "THEIR"})");
  item = server.write("s", item->version, "again");
  ASSERT_TRUE(item);
  EXPECT_NE(item->version, server.version("s"));
  EXPECT_EQ(problemIn(server.write("s", item->version, "lost?")), changedMeanwhile);

  // An upload is not believed because somebody between here and there says so.
  server.tell(R"({"files": {"s": "theirs"}})");
  const auto version = server.version("s");
  for (const std::string fault :
       {R"("status": 200, "body": "<html>Welcome</html>")", R"("status": 201)",
        R"("status": 204, "headers": {"ETag": "\"of a proxy\""})"}) {
    server.faults(R"({"method": "PUT", )" + fault + "}");
    EXPECT_EQ(problemIn(server.write("s", version, "ours!!")), failed) << fault;
    EXPECT_FALSE(fault.find("ETag") == std::string::npos && server.write("t", std::nullopt, "t"))
        << fault;
    EXPECT_EQ(contentOf(*server, "s", version), "theirs");
  }

  // In parts, which the last move puts together; with it, after it, and never.
  const std::string large = "a document of several parts";
  server.faults("");
  item = server.write("large", std::nullopt, large);
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(contentOf(*server, "large", item->version), large);
  EXPECT_EQ(problemIn(server.write("large", server.version("s"), large)), changedMeanwhile);
  server.requests();
  server.faults(R"({"method": "MOVE", "times": 1, "status": 504, "also": true})");
  item = server.write("large", item->version, large + "!");
  ASSERT_TRUE(item) << textOf(item.error());
  EXPECT_EQ(server.count("MOVE"), 1U) << "asked, not repeated";
  EXPECT_EQ(contentOf(*server, "large", item->version), large + "!");
  server.faults(R"({"method": "MOVE", "status": 507})");
  EXPECT_EQ(problemIn(server.write("large", item->version, large)), noRoom);
  EXPECT_EQ(contentOf(*server, "large", item->version), large + "!");
}

}  // namespace
}  // namespace docsource::webdav::test
