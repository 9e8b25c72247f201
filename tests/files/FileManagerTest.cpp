#include "platform/files/FileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/base/Errors.h"
#include "tests/support/InChild.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace qx;  // NOLINT: the whole vocabulary is under test
using test::TemporaryDirectory;

std::size_t entryCount(const std::string& directory) {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator(directory), {}));
}

std::string contentOf(const std::string& path) {
  auto text = FileManager::readFile(path);
  return text.ok() ? *std::move(text) : text.error().text();
}

std::int64_t errnoOf(const Error& error) {
  const auto underlying = error.underlyingError();
  return underlying ? underlying->code() : 0;
}

/// Lowers a resource limit of this process while it lives; each test is its own process.
class Limit {
 public:
  Limit(__rlimit_resource resource, rlim_t value) : resource_(resource) {
    ::getrlimit(resource_, &before_);
    const rlimit lowered{value, before_.rlim_max};
    ::setrlimit(resource_, &lowered);
  }
  ~Limit() { ::setrlimit(resource_, &before_); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  __rlimit_resource resource_;
  rlimit before_{};
};

TEST(ReplaceFileTest, TheNewContentTakesTheOldOnesPlace) {
  TemporaryDirectory directory;
  const std::string path = directory / "file";
  ::umask(022);
  EXPECT_EQ(FileManager::replaceFile(path, "first"), std::nullopt);
  struct stat status;
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);

  // Whoever has the old file open goes on seeing the old file.
  std::ifstream old(path);
  const std::string large(3'000'000, 'x');
  const auto write = [&](const std::function<void(std::string_view)>& append) {
    append("begin");
    append(large);
    for (int i = 0; i < 100000; ++i) append("12345");
    return true;
  };
  EXPECT_EQ(FileManager::replaceFile(path, write, 0666), std::nullopt);
  std::string expected = "begin" + large;
  for (int i = 0; i < 100000; ++i) expected += "12345";
  EXPECT_EQ(contentOf(path), expected);
  EXPECT_EQ(std::string(std::istreambuf_iterator(old), {}), "first");
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(entryCount(directory.path()), 1u);
}

TEST(ReplaceFileTest, AFailureLeavesTheOldFileAndNothingElse) {
  TemporaryDirectory directory;
  const std::string path = directory / "file";
  ASSERT_EQ(FileManager::replaceFile(path, "old"), std::nullopt);

  // The writer gives up after it has written more than any buffer holds.
  const auto givesUp = [](const std::function<void(std::string_view)>& append) {
    append(std::string(1'000'000, 'x'));
    return false;
  };
  EXPECT_TRUE(FileManager::replaceFile(path, givesUp));

  // The disk takes a part.
  ::signal(SIGXFSZ, SIG_IGN);
  {
    const Limit limit(RLIMIT_FSIZE, 100'000);
    const auto error = FileManager::replaceFile(path, std::string(1'000'000, 'x'));
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->is(QXStandardErrorDomain, fileUnknownError));
    EXPECT_EQ(errnoOf(*error), EFBIG);
    EXPECT_EQ(*find<URL>(error->info(), QXURLErrorKey), URL::fileURL(path));
  }
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(entryCount(directory.path()), 1u);

  // The last step fails: a directory is in the way.
  ASSERT_EQ(FileManager::createDirectory(directory / "taken"), std::nullopt);
  const auto taken = FileManager::replaceFile(directory / "taken", "new");
  ASSERT_TRUE(taken);
  EXPECT_EQ(errnoOf(*taken), EISDIR);
  EXPECT_EQ(entryCount(directory.path()), 2u);

  const auto missing = FileManager::replaceFile(directory / "missing/file", "new");
  ASSERT_TRUE(missing);
  EXPECT_TRUE(missing->is(QXStandardErrorDomain, fileNoSuchFileError));
  EXPECT_TRUE(FileManager::replaceFile(path + "/below", "new"));
  EXPECT_TRUE(FileManager::replaceFile(directory.path() + "/", "new"));
  EXPECT_TRUE(FileManager::replaceFile(directory / std::string(300, 'x'), "new"));
  EXPECT_EQ(entryCount(directory.path()), 2u);
}

TEST(ReplaceFileTest, AKilledWriterLeavesNothing) {
  TemporaryDirectory directory;
  const std::string path = directory / "file";
  ASSERT_EQ(FileManager::replaceFile(path, "old"), std::nullopt);
  const FileDescriptor probe(
      ::open(directory.path().c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  if (!probe) GTEST_SKIP() << "this file system has no files without names";
  const pid_t child = ::fork();
  if (child == 0) {
    (void)FileManager::replaceFile(path, [](const auto& append) {
      append(std::string(1'000'000, 'x'));
      return ::kill(::getpid(), SIGKILL) == 0;
    });
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(entryCount(directory.path()), 1u);
}

TEST(ReplaceFileTest, ReadersSeeOneContentOrTheOther) {
  TemporaryDirectory directory;
  const std::string path = directory / "file";
  const std::string contents[] = {std::string(200'000, 'a'), std::string(150'000, 'b')};
  ASSERT_EQ(FileManager::replaceFile(path, contents[0]), std::nullopt);
  std::atomic<bool> done = false;
  std::atomic<int> reads = 0;
  std::thread reader([&] {
    while (!done) {
      const std::string content = contentOf(path);
      EXPECT_TRUE(content == contents[0] || content == contents[1]) << content.size();
      ++reads;
    }
  });
  std::vector<std::thread> writers;
  for (const std::string& content : contents) {
    writers.emplace_back([&path, &content, &reads] {
      for (int i = 0; i < 30 || reads < 10; ++i) {
        EXPECT_EQ(FileManager::replaceFile(path, content), std::nullopt);
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  done = true;
  reader.join();
  EXPECT_EQ(entryCount(directory.path()), 1u);
}

TEST(FileManagerTest, DirectoriesAreMadeWithTheirParents) {
  TemporaryDirectory directory;
  EXPECT_EQ(FileManager::createDirectory(directory / "a/b//c/"), std::nullopt);
  EXPECT_EQ(FileManager::createDirectory(directory / "a/b/c"), std::nullopt);
  EXPECT_TRUE(std::filesystem::is_directory(directory / "a/b/c"));

  ASSERT_EQ(FileManager::replaceFile(directory / "file", "x"), std::nullopt);
  EXPECT_TRUE(FileManager::createDirectory(directory / "file"));
  EXPECT_TRUE(FileManager::createDirectory(directory / "file/below"));
  EXPECT_TRUE(FileManager::createDirectory(""));
  EXPECT_TRUE(FileManager::createDirectory(directory / std::string(5000, 'x')));

  // A link to a directory will do, one that leads nowhere will not.
  std::filesystem::create_directory_symlink("a", directory / "link");
  std::filesystem::create_symlink("nowhere", directory / "dangling");
  EXPECT_EQ(FileManager::createDirectory(directory / "link/d"), std::nullopt);
  EXPECT_TRUE(FileManager::createDirectory(directory / "dangling"));
  EXPECT_TRUE(FileManager::fileExists(directory / "a/d"));
  EXPECT_FALSE(FileManager::fileExists(directory / "dangling"));
}

TEST(FileManagerTest, TreesAreRemovedAndWhatLinksLeadToIsNot) {
  TemporaryDirectory directory;
  ASSERT_EQ(FileManager::createDirectory(directory / "tree/sub"), std::nullopt);
  ASSERT_EQ(FileManager::createDirectory(directory / "kept"), std::nullopt);
  ASSERT_EQ(FileManager::replaceFile(directory / "kept/file", "x"), std::nullopt);
  std::filesystem::create_directory_symlink(directory / "kept", directory / "tree/sub/link");
  EXPECT_EQ(FileManager::removeTree(directory / "tree"), std::nullopt);
  EXPECT_EQ(FileManager::removeTree(directory / "tree"), std::nullopt);
  EXPECT_FALSE(FileManager::fileExists(directory / "tree"));
  EXPECT_TRUE(FileManager::fileExists(directory / "kept/file"));
}

TEST(FileManagerTest, WholeFilesAndStreams) {
  TemporaryDirectory directory;
  const std::string content(100'000, 'x');
  ASSERT_EQ(FileManager::replaceFile(directory / "file", content), std::nullopt);
  ASSERT_EQ(FileManager::replaceFile(directory / "empty", ""), std::nullopt);
  EXPECT_EQ(contentOf(directory / "file"), content);
  EXPECT_EQ(contentOf(directory / "empty"), "");
  // A file that does not know its size.
  EXPECT_NE(contentOf("/proc/self/status").find("Pid:"), std::string::npos);

  const auto absent = FileManager::readFile(directory / "absent");
  ASSERT_FALSE(absent.ok());
  EXPECT_EQ(absent.error(), fileError(ENOENT, URL::fileURL(directory / "absent")));
  const auto folder = FileManager::readFile(directory.path());
  ASSERT_FALSE(folder.ok());
  EXPECT_EQ(errnoOf(folder.error()), EISDIR);

  const auto stream = FileManager::inputStream(directory / "file");
  ASSERT_TRUE(stream);
  EXPECT_EQ(std::string(std::istreambuf_iterator(*stream), {}), content);
  EXPECT_EQ(FileManager::inputStream(directory / "absent"), nullptr);
  // An error is not the end of the file.
  const auto broken = FileManager::inputStream(directory.path());
  ASSERT_TRUE(broken);
  char byte;
  broken->read(&byte, 1);
  EXPECT_TRUE(broken->bad());
}

}  // namespace
