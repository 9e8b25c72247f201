// A mirror of each real server: work on both sides ends with both sides equal.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>

#include "mirror/Mirror.h"
#include "tests/webdav/ServerProcess.h"

namespace docsource::webdav::test {
namespace {

namespace fs = std::filesystem;

class Mirrored : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (!server_.url()) GTEST_SKIP() << server_.says();
    fs::create_directories(server_.files() + "/d/e");
    for (const auto& [path, text] : {std::pair("a.txt", "from there"), std::pair("d/b", "below"),
                                     std::pair("d/e/c", "deeper")}) {
      std::ofstream(server_.files() + "/" + path) << text;
    }
    for (const auto& entry : fs::recursive_directory_iterator(server_.files())) {
      fs::permissions(entry, fs::perms::all);
    }
    MirrorOptions options;
    options.storage = scratch_ / "here";
    options.state = scratch_ / "state";
    options.host = "host";
    options.rest = std::chrono::milliseconds(0);
    mirror_ = std::make_unique<Mirror>(options, *makeWebDAVRemote(server_.options()));
    const auto started = mirror_->start();
    ASSERT_TRUE(started) << started.error().text();
  }

  void sync() {
    const auto done = mirror_->sync();
    const auto health = mirror_->health();
    EXPECT_TRUE(done) << done.error().text();
    EXPECT_EQ(health.waiting, 0U) << health.reason.value_or("");
  }
  /// Paths and contents; directories have none.
  static std::map<std::string, std::string> treeOf(const std::string& top) {
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
      const auto path = fs::relative(entry, top).string();
      if (path.starts_with(".docsource-")) continue;
      std::ifstream file(entry.path(), std::ofstream::binary);
      tree[path] =
          entry.is_directory() ? "/" : std::string(std::istreambuf_iterator<char>(file), {});
    }
    return tree;
  }
  void expectBothSidesEqual() {
    const auto provided = mirror_->provide(scratch_ / "here");
    EXPECT_TRUE(provided) << provided.error().text();
    EXPECT_EQ(treeOf(here("")), treeOf(server_.files()));
  }
  std::string here(const std::string& path) { return scratch_ / "here/" + path; }

  qx::test::TemporaryDirectory scratch_;
  ServerProcess server_{GetParam(), SERVERS};
  std::unique_ptr<Mirror> mirror_;
};

TEST_P(Mirrored, EndsWithBothSidesEqual) {
  sync();
  EXPECT_EQ(fs::file_size(here("a.txt")), 10U);
  expectBothSidesEqual();

  // Edited in place, saved over, made, moved, removed; large, small and many.
  std::ofstream(here("a.txt"), std::ofstream::app) << " and from here";
  std::ofstream(here("d/b.new")) << "saved over";
  fs::rename(here("d/b.new"), here("d/b"));
  fs::create_directories(here("new/deep er"));
  std::ofstream(here("new/large")) << std::string(3000000, 'x');
  for (int i = 0; i < 30; ++i) std::ofstream(here("new/n" + std::to_string(i))) << i;
  fs::rename(here("d/e"), here("new/deep er/moved"));
  sync();
  fs::remove(here("new/n1"));
  fs::rename(here("new/n2"), here("renamed \xc3\xa9 100%"));
  sync();
  expectBothSidesEqual();
  EXPECT_EQ(treeOf(server_.files()).at("a.txt"), "from there and from here");
  EXPECT_EQ(treeOf(server_.files()).size(), 37U);

  // Changed on both sides: neither is lost.
  std::ofstream(server_.files() + "/.other") << "somebody else's words";
  fs::permissions(server_.files() + "/.other", fs::perms::all);
  fs::rename(server_.files() + "/.other", server_.files() + "/d/b");
  std::ofstream(here("d/b")) << "words of our own";
  sync();
  sync();
  expectBothSidesEqual();
  EXPECT_EQ(mirror_->conflicts().size(), 1U);
  std::string all;
  for (const auto& [path, text] : treeOf(server_.files())) all += text;
  EXPECT_NE(all.find("somebody else's words"), std::string::npos);
  EXPECT_NE(all.find("words of our own"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Of, Mirrored,
                         testing::Values("apache", "nginx", "lighttpd", "rclone", "sabre"),
                         [](const auto& of) { return of.param; });

}  // namespace
}  // namespace docsource::webdav::test
