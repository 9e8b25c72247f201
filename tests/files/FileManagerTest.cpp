#include "platform/files/FileManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "platform/base/Errors.h"
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

TEST(ReplaceFileTest, TheNewContentTakesTheOldOnesPlace) {
  TemporaryDirectory directory;
  const std::string path = directory / "file";
  ::umask(077);
  EXPECT_EQ(FileManager::replaceFile(path, "first"), std::nullopt);
  struct stat status;
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);

  // Whoever has the old file open goes on seeing the old file.
  std::ifstream old(path);
  const std::string large(3'000'000, 'x');
  std::string expected;
  const auto write = [&](const std::function<void(std::string_view)>& append) {
    for (const auto& piece : {std::string("begin"), large, std::string(100, 'y')}) {
      append(piece);
      expected += piece;
    }
  };
  EXPECT_EQ(FileManager::replaceFile(path, write, 0644), std::nullopt);
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

  // The disk takes a part.
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{100'000, RLIM_INFINITY}, unlimited{RLIM_INFINITY, RLIM_INFINITY};
  ::setrlimit(RLIMIT_FSIZE, &small);
  const auto error = FileManager::replaceFile(path, std::string(1'000'000, 'x'));
  ::setrlimit(RLIMIT_FSIZE, &unlimited);
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(QXStandardErrorDomain, fileUnknownError));
  EXPECT_EQ(errnoOf(*error), EFBIG);
  EXPECT_EQ(*find<URL>(error->info(), QXURLErrorKey), URL::fileURL(path));
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(entryCount(directory.path()), 1u);

  // The last step fails: a directory is in the way.
  ASSERT_EQ(FileManager::createDirectory(directory / "taken"), std::nullopt);
  const auto taken = FileManager::replaceFile(directory / "taken", "new");
  ASSERT_TRUE(taken);
  EXPECT_EQ(errnoOf(*taken), EISDIR);
  EXPECT_EQ(entryCount(directory.path()), 2u);

  for (const auto& impossible : {directory / "missing/file", path + "/below",
                                 directory.path() + "/", directory / std::string(300, 'x')}) {
    EXPECT_TRUE(FileManager::replaceFile(impossible, "new")) << impossible;
  }
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
      ::kill(::getpid(), SIGKILL);
    });
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(entryCount(directory.path()), 1u);
}

TEST(FileManagerTest, DirectoriesAreMadeWithTheirParentsAndRemovedAsTrees) {
  TemporaryDirectory directory;
  EXPECT_EQ(FileManager::createDirectory(directory / "a/b//c/"), std::nullopt);
  EXPECT_EQ(FileManager::createDirectory(directory / "a/b/c"), std::nullopt);
  ASSERT_EQ(FileManager::replaceFile(directory / "file", "x"), std::nullopt);
  // A link to a directory will do, one that leads nowhere will not.
  std::filesystem::create_directory_symlink("a", directory / "link");
  std::filesystem::create_symlink("nowhere", directory / "dangling");
  EXPECT_EQ(FileManager::createDirectory(directory / "link/d"), std::nullopt);
  for (const char* name : {"file", "file/below", "dangling"}) {
    EXPECT_TRUE(FileManager::createDirectory(directory / name)) << name;
  }
  EXPECT_TRUE(FileManager::createDirectory(""));
  EXPECT_TRUE(FileManager::fileExists(directory / "a/d"));
  EXPECT_FALSE(FileManager::fileExists(directory / "dangling"));

  // What a link leads to is not removed with it.
  ASSERT_EQ(FileManager::createDirectory(directory / "tree/sub"), std::nullopt);
  std::filesystem::create_directory_symlink(directory / "a", directory / "tree/sub/link");
  EXPECT_EQ(FileManager::removeTree(directory / "tree"), std::nullopt);
  EXPECT_EQ(FileManager::removeTree(directory / "tree"), std::nullopt);
  EXPECT_FALSE(FileManager::fileExists(directory / "tree"));
  EXPECT_TRUE(FileManager::fileExists(directory / "a/d"));
}

}  // namespace
