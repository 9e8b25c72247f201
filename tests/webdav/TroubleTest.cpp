// A server of which some answers are none, for good: what cannot be had is that item's trouble, and
// the account goes on with everything else.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "mirror/Mirror.h"
#include "tests/webdav/ServerProcess.h"

namespace docsource::webdav::test {
namespace {

namespace fs = std::filesystem;

TEST(AccountAtAServer, GoesOnWhereOneItemCannotBeHad) {
  qx::test::TemporaryDirectory scratch;
  ServerProcess server("plain", SCRIPTED);
  server.ask(
      R"({"files": {"good": "words", "page": "0123456789", "edited": "before",)"
      R"( "refused": "before", "cut": "cut", "d/": "", "d/hidden": "h", "e/": "", "e/x": "x"}})");
  MirrorOptions options;
  options.storage = scratch / "here";
  options.state = scratch / "state";
  options.host = "host";
  options.rest = std::chrono::milliseconds(0);
  options.transfersAhead = 0;  // nothing comes before the trouble does
  auto asked = server.options();
  asked.connection.wait = [](std::chrono::milliseconds) { return true; };
  Mirror mirror(options, *makeWebDAVRemote(asked));
  ASSERT_TRUE(mirror.start());
  const auto here = [&](const std::string& path) { return scratch / "here/" + path; };
  const auto read = [](const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const auto reason = [&](const std::string& path) {
    const auto status = mirror.status(here(path));
    return status && status->reason ? *status->reason : "";
  };
  ASSERT_TRUE(mirror.sync());
  for (const char* path : {"edited", "refused"}) ASSERT_TRUE(mirror.provide(here(path))) << path;

  // A page in the place of one document, a line that breaks at another, a directory that cannot be
  // listed, and a document of which nothing can be learned.
  server.ask(
      R"({"faults": [{"method": "GET", "path": "page", "status": 200, "body": "<html>Hello</html>"},)"
      R"({"method": "GET", "path": "cut", "cut": 0},)"
      R"({"method": "PROPFIND", "path": "d", "status": 500},)"
      R"({"method": "PROPFIND", "path": "refused", "status": 200, "body": "<html>Hello</html>"}],)"
      R"("files": {"d/new": "new", "e/new": "new"}})");
  std::ofstream(here("edited")) << "after";
  std::ofstream(here("refused")) << "after";
  std::ofstream(here("made")) << "made";
  ASSERT_TRUE(mirror.pin(here("page")));
  EXPECT_FALSE(mirror.provide(here("page")));
  EXPECT_FALSE(mirror.provide(here("cut")));
  const auto done = mirror.sync();
  EXPECT_TRUE(done) << done.error().text();
  auto health = mirror.health();
  EXPECT_EQ(health.state, MirrorHealth::State::ok) << health.reason.value_or("");
  EXPECT_EQ(health.waiting, 1U);
  EXPECT_EQ(health.failed, 3U);
  EXPECT_NE(reason("page").find("something answered that is not the server"), std::string::npos)
      << reason("page");
  EXPECT_NE(reason("refused").find("its status is 200"), std::string::npos) << reason("refused");
  EXPECT_NE(reason("d").find("status 500"), std::string::npos) << reason("d");
  // Everything else is carried on, both ways, and what was there stays.
  EXPECT_TRUE(mirror.provide(here("good")));
  EXPECT_TRUE(fs::exists(here("e/new")));
  EXPECT_TRUE(fs::exists(here("d/hidden")));
  EXPECT_EQ(read(here("refused")), "after");

  // It gets well by itself.
  server.ask(R"({"faults": []})");
  ASSERT_TRUE(mirror.sync());
  ASSERT_TRUE(mirror.provide(here("cut")));
  health = mirror.health();
  EXPECT_EQ(health.waiting + health.failed, 0U);
  EXPECT_EQ(read(here("page")), "0123456789");
  EXPECT_TRUE(fs::exists(here("d/new")));
  const auto second = *makeWebDAVRemote(asked);
  for (const auto& [path, text] :
       {std::pair("edited", "after"), std::pair("refused", "after"), std::pair("made", "made")}) {
    const auto there = second->look(path);
    ASSERT_TRUE(there) << path;
    EXPECT_EQ(contentOf(*second, path, there->version), text);
  }

  // Nothing answers: that is the account's.
  server.ask(R"({"faults": [{"method": "PROPFIND", "status": 200, "body": "<html>Hello</html>"},)"
             R"({"method": "GET", "status": 200, "body": "<html>Hello</html>"}]})");
  EXPECT_FALSE(mirror.sync());
  EXPECT_EQ(mirror.health().state, MirrorHealth::State::offline);
}

}  // namespace
}  // namespace docsource::webdav::test
