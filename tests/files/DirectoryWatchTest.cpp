#include "platform/files/DirectoryWatch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <future>

#include "platform/base/FileDescriptor.h"
#include "tests/support/Mailbox.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using qx::DirectoryWatch;
using qx::test::Mailbox;
using qx::test::TemporaryDirectory;

class DirectoryWatchTest : public testing::Test {
 protected:
  std::unique_ptr<DirectoryWatch> watch(const std::string& directory) {
    return DirectoryWatch::start(directory,
                                 [box = box](const std::string& name) { box->put(name); });
  }

  static void writeFile(const std::string& path) { std::ofstream(path) << "text"; }

  TemporaryDirectory root;
  /// Shared with the callbacks, of which one may still be running at the end.
  std::shared_ptr<Mailbox<std::string>> box = std::make_shared<Mailbox<std::string>>();
  Mailbox<std::string>& told = *box;
};

TEST_F(DirectoryWatchTest, TellsEachCompleteChangeOfAnEntry) {
  TemporaryDirectory elsewhere;
  for (const auto& path :
       {elsewhere / "original", elsewhere / "comes", root / "goes", root / "dies"}) {
    writeFile(path);
  }
  std::ofstream(elsewhere / "empty").close();
  auto started = watch(root.path());
  writeFile(root / "file");
  fs::create_directory(root / "directory");
  fs::create_symlink("nowhere", root / "link");
  fs::create_hard_link(elsewhere / "original", root / "hard");
  fs::create_hard_link(elsewhere / "empty", root / "empty");
  fs::rename(elsewhere / "comes", root / "comes");
  fs::rename(root / "goes", elsewhere / "goes");
  fs::remove(root / "dies");
  for (const char* name : {"file", "directory", "link", "hard", "empty", "comes", "goes", "dies"}) {
    EXPECT_TRUE(told.waitFor(name)) << name;
  }

  // A file that is still being written is told when it is closed, not before.
  told.take();
  qx::FileDescriptor open(::open((root / "slow").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  fs::create_directory(root / "marker");
  EXPECT_TRUE(told.waitFor("marker"));
  EXPECT_EQ(told.all(), std::vector<std::string>{"marker"});
  open.reset();
  EXPECT_TRUE(told.waitFor("slow"));
}

TEST_F(DirectoryWatchTest, WaitsForADirectoryThatIsMissing) {
  auto started = watch(root / "a/b/c");
  auto appears = [&](const std::string& file) {
    if (!told.waitFor("")) return false;
    writeFile(root / "a/b/c/" + file);
    return told.waitFor(file);
  };
  for (const char* step : {"a", "a/b", "a/b/c"}) fs::create_directory(root / step);
  EXPECT_TRUE(appears("one"));

  told.take();
  fs::remove_all(root / "a/b/c");
  EXPECT_TRUE(told.waitFor(""));
  told.take();
  fs::create_directory(root / "prepared");
  fs::rename(root / "prepared", root / "a/b/c");
  EXPECT_TRUE(appears("two"));

  // It goes with an ancestor, too, and what happens where it went is nobody's business.
  told.take();
  fs::rename(root / "a", root / "away");
  EXPECT_TRUE(told.waitFor(""));
  told.take();
  writeFile(root / "away/b/c/unseen");
  fs::create_directories(root / "a/b/c");
  EXPECT_TRUE(appears("three"));
  auto names = told.all();
  EXPECT_EQ(std::count(names.begin(), names.end(), "unseen"), 0);
}

TEST_F(DirectoryWatchTest, SaysWhenEventsWereLost) {
  std::ifstream limitFile("/proc/sys/fs/inotify/max_queued_events");
  unsigned limit = 0;
  limitFile >> limit;
  if (limit == 0 || limit > 100'000) GTEST_SKIP() << "the queue of events is too long to fill";

  writeFile(root / "even");
  writeFile(root / "odd");
  std::promise<void> goOn;
  auto mayGoOn = goOn.get_future().share();
  auto started = DirectoryWatch::start(root.path(), [box = box, mayGoOn](const std::string& name) {
    box->put(name);
    mayGoOn.wait();
  });
  fs::create_directory(root / "first");
  ASSERT_TRUE(told.waitFor("first"));
  // Equal events in a row would count as one.
  for (unsigned event = 0; event <= limit; ++event) {
    auto path = root / (event % 2 ? "odd" : "even");
    qx::FileDescriptor closed(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(closed);
  }
  goOn.set_value();
  EXPECT_TRUE(told.waitFor(""));
  writeFile(root / "afterwards");
  EXPECT_TRUE(told.waitFor("afterwards"));
}

}  // namespace
