// Placeholders on a real file system: what they show, what a crash leaves of them, and what keeps
// a document from becoming one again.

#include "docsource/placeholder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/TemporaryDirectory.h"

namespace {

using docsource::Descriptor;
using docsource::Placeholder;
using docsource::PlaceholderState;
using Eviction = docsource::Placeholder::Eviction;

constexpr const char* placeholderAttribute = "user.docsource.placeholder";
constexpr const char* providedAttribute = "user.docsource.provided";

/// Before 1970, with nanoseconds: both are easily lost.
const Placeholder::Time longAgo{std::chrono::nanoseconds(-86400'000000000LL + 123456789)};

class PlaceholderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::setxattr(root.path().c_str(), "user.docsource.test", "1", 1, 0) != 0) {
      GTEST_SKIP() << "no extended attributes on " << root.path();
    }
  }

  static Descriptor open(const std::string& path, int flags = O_RDWR) {
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC));
    EXPECT_TRUE(file) << path << ": " << errno;
    return file;
  }
  static std::string read(int file) {
    struct stat status {};
    ::fstat(file, &status);
    std::string bytes(static_cast<std::size_t>(status.st_size), '?');
    EXPECT_EQ(::pread(file, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return bytes;
  }
  static struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status;
  }
  static docsource::PlaceholderStatus query(const std::string& path) {
    const auto status = docsource::placeholderStatus(path);
    EXPECT_TRUE(status.ok());
    return status ? *status : docsource::PlaceholderStatus();
  }
  static void succeeds(const docsource::Result<void>& result) {
    EXPECT_TRUE(result.ok()) << result.error().text();
  }
  static void fill(const Descriptor& file, const std::string& content,
                   Placeholder::Time modified = longAgo) {
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok()) << writer.error().text();
    succeeds(writer->write(content));
    succeeds(writer->finish({content.size(), modified, std::nullopt}));
  }
  static Eviction evict(const Descriptor& file) {
    const auto result = Placeholder(file.get()).evict();
    EXPECT_TRUE(result.ok()) << result.error().text();
    return result ? *result : Eviction::notPresent;
  }
  void expectPlaceholder(std::uint64_t size) {
    const auto status = query(path);
    EXPECT_EQ(status.state, PlaceholderState::placeholder);
    EXPECT_EQ(status.size, size);
    const std::uint64_t firstBlock = size < 512 ? 0 : 4096;
    EXPECT_GE(status.occupied, firstBlock);
    // A file that lay in many places keeps a block in which they were listed.
    EXPECT_LE(status.occupied, size < 1'000'000 ? firstBlock : firstBlock + 4096);
    const auto here = statusOf(path);
    EXPECT_EQ(here.st_mtim.tv_sec, -86400);
    EXPECT_EQ(here.st_mtim.tv_nsec, 123456789);
  }

  const qx::test::TemporaryDirectory root;
  const std::string path = root / "document";
  /// Neither a whole number of blocks nor of pages.
  const std::string content = std::string(300'001, 'c') + "end";
};

TEST_F(PlaceholderTest, ShowsTheDocumentAndOccupiesNextToNothing) {
  constexpr std::uint64_t size = (5ULL << 30U) + 1;
  succeeds(Placeholder::make(path, {size, longAgo, longAgo}, 0640));
  expectPlaceholder(size);
  const auto made = statusOf(path);
  EXPECT_EQ(made.st_mode & 0777U, 0640U);
  EXPECT_EQ(made.st_atim.tv_sec, -86400);
  std::string state(100, ' ');
  state.resize(static_cast<std::size_t>(
      ::getxattr(path.c_str(), placeholderAttribute, state.data(), state.size())));
  EXPECT_EQ(state, "placeholder");

  // What is there already stays, be it a document.
  const auto again = Placeholder::make(path, {1, longAgo, std::nullopt});
  ASSERT_FALSE(again.ok());
  ASSERT_NE(again.error().underlying(), nullptr);
  EXPECT_TRUE(again.error().underlying()->is(docsource::posixErrorDomain, EEXIST));
  EXPECT_EQ(statusOf(path).st_ino, made.st_ino);
  EXPECT_TRUE(Placeholder::make(root / "missing/document", {1, longAgo, std::nullopt})
                  .error()
                  .is(docsource::standardErrorDomain, 260));

  // The document has another size now.
  const auto file = open(path);
  for (const std::uint64_t other : {std::uint64_t{17}, size, std::uint64_t{0}}) {
    succeeds(Placeholder(file.get()).reset({other, longAgo, std::nullopt}));
    expectPlaceholder(other);
  }
}

TEST_F(PlaceholderTest, IsFilledInPlace) {
  succeeds(Placeholder::make(path, {content.size(), longAgo, std::nullopt}));
  const auto reader = open(path, O_RDONLY);
  const auto file = open(path);
  const auto inode = statusOf(path).st_ino;
  {
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok());
    EXPECT_EQ(query(path).state, PlaceholderState::providing);
    EXPECT_EQ(evict(file), Eviction::notPresent);
    const std::string_view bytes = content;
    succeeds(writer->writeAt(200'000, bytes.substr(200'000)));
    EXPECT_EQ(query(path).size, content.size());
    succeeds(writer->writeAt(0, bytes.substr(0, 100'000)));
    succeeds(writer->write(bytes.substr(100'000, 100'000)));
    EXPECT_EQ(query(path).state, PlaceholderState::providing);
    EXPECT_GE(query(path).occupied, 290'000U);
    succeeds(writer->finish({content.size(), longAgo, std::nullopt}));
  }
  EXPECT_TRUE(read(reader.get()) == content);
  EXPECT_EQ(statusOf(path).st_ino, inode);
  EXPECT_EQ(statusOf(path).st_mtim.tv_nsec, 123456789);
  EXPECT_LT(::getxattr(path.c_str(), placeholderAttribute, nullptr, 0), 0);
  EXPECT_EQ(query(path).state, PlaceholderState::present);
  EXPECT_EQ(query(path).changed, std::optional(false));

  // Brought up to date, to less and to more than there was, and to a document that has holes.
  fill(file, "short");
  EXPECT_EQ(read(reader.get()), "short");
  auto writer = Placeholder(file.get()).fill();
  ASSERT_TRUE(writer.ok());
  succeeds(writer->write("holes"));
  succeeds(writer->finish({1 << 24U, longAgo, std::nullopt}));
  EXPECT_LT(query(path).occupied, query(path).size);
  EXPECT_EQ(query(path).state, PlaceholderState::present);
}

TEST_F(PlaceholderTest, IsFilledFromAnotherFile) {
  std::ofstream(root / "source") << content;
  // The kernel copies from the first, not from the other, whose size it does not know either.
  for (const std::string& from : {root / "source", std::string("/proc/version")}) {
    const auto source = open(from, O_RDONLY);
    std::ostringstream expectedText;
    expectedText << std::ifstream(from).rdbuf();
    const auto expected = expectedText.str();
    ASSERT_FALSE(expected.empty());
    const std::string copy = root / "copy";
    std::filesystem::remove(copy);
    succeeds(Placeholder::make(copy, {expected.size(), longAgo, std::nullopt}));
    const auto file = open(copy);
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok());
    succeeds(writer->copy(source.get()));
    succeeds(writer->write("more"));
    succeeds(writer->finish({expected.size() + 4, longAgo, std::nullopt}));
    EXPECT_TRUE(read(file.get()) == expected + "more") << from;
  }
}

TEST_F(PlaceholderTest, ALargeFileIsCopiedInPiecesAndGivenBackWhole) {
  constexpr std::size_t size = (40U << 20U) + 5;
  std::string text(size, ' ');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i >> 12U) % 26);
  std::ofstream(root / "source") << text;
  const auto source = open(root / "source", O_RDONLY);
  succeeds(Placeholder::make(path, {size, longAgo, std::nullopt}));
  const auto file = open(path);
  {
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok());
    succeeds(writer->copy(source.get()));
    EXPECT_TRUE(read(file.get()) == text);
  }
  expectPlaceholder(size);
  auto writer = Placeholder(file.get()).fill();
  ASSERT_TRUE(writer.ok());
  succeeds(writer->copy(source.get()));
  succeeds(writer->finish({size, longAgo, std::nullopt}));
  EXPECT_TRUE(read(file.get()) == text);
  EXPECT_LE(query(path).occupied, size + 16384);
}

TEST_F(PlaceholderTest, GivesUpWithoutATrace) {
  succeeds(Placeholder::make(path, {content.size(), longAgo, std::nullopt}));
  const auto file = open(path);
  {
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok());
    succeeds(writer->write(content + content));
    EXPECT_FALSE(writer->writeAt(~std::uint64_t{0}, "x").ok());
    EXPECT_FALSE(writer->finish({~std::uint64_t{0}, longAgo, std::nullopt}).ok());
  }
  expectPlaceholder(content.size());
}

TEST_F(PlaceholderTest, IsOneStillAfterACrashHalfWay) {
  succeeds(Placeholder::make(path, {content.size(), longAgo, std::nullopt}));
  const pid_t child = ::fork();
  if (child == 0) {
    const auto file = open(path);
    auto writer = Placeholder(file.get()).fill();
    if (writer && writer->write(content.substr(0, 200'000))) ::raise(SIGSTOP);
    ::_exit(1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, WUNTRACED), child);
  ASSERT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(query(path).state, PlaceholderState::providing);
  ::kill(child, SIGKILL);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_EQ(query(path).state, PlaceholderState::placeholder);
  EXPECT_EQ(query(path).size, content.size());
  EXPECT_GT(query(path).occupied, 0U);

  // The next attempt sees nothing of it.
  const auto file = open(path);
  EXPECT_EQ(evict(file), Eviction::notPresent);
  auto writer = Placeholder(file.get()).fill();
  ASSERT_TRUE(writer.ok());
  EXPECT_TRUE(read(file.get()) == std::string(content.size(), 0));
  succeeds(writer->write(content));
  succeeds(writer->finish({content.size(), longAgo, std::nullopt}));
  EXPECT_TRUE(read(file.get()) == content);
}

TEST_F(PlaceholderTest, ContentThatSomebodyUsesOrChangedStays) {
  succeeds(Placeholder::make(path, {content.size(), longAgo, std::nullopt}));
  const auto file = open(path);
  fill(file, content);
  const auto stays = [&](Eviction because, const std::string& bytes) {
    EXPECT_EQ(evict(file), because);
    EXPECT_EQ(query(path).state, PlaceholderState::present);
    EXPECT_TRUE(read(file.get()) == bytes);
  };
  {
    const auto reader = open(path, O_RDONLY);
    EXPECT_EQ(*docsource::isFileInUse(file.get()), true);
    stays(Eviction::inUse, content);
  }
  void* mapping = MAP_FAILED;
  {
    const auto mapped = open(path, O_RDONLY);
    mapping = ::mmap(nullptr, content.size(), PROT_READ, MAP_SHARED, mapped.get(), 0);
  }
  ASSERT_NE(mapping, MAP_FAILED);
  stays(Eviction::inUse, content);
  ::munmap(mapping, content.size());
  EXPECT_EQ(*docsource::isFileInUse(file.get()), false);

  // One byte, the size as it was.
  std::string changed = content;
  changed[1000] = 'X';
  ASSERT_EQ(::pwrite(open(path).get(), "X", 1, 1000), 1);
  EXPECT_EQ(query(path).changed, std::optional(true));
  stays(Eviction::changed, changed);
  // The provider took it over.
  const Placeholder document(file.get());
  succeeds(document.setUnchanged(*document.version()));
  EXPECT_FALSE(document.isChanged());
  // Of another content than that which is there now.
  succeeds(document.setUnchanged("0:0:0.0"));
  stays(Eviction::changed, changed);

  // Nobody knows where it came from; neither does the attribute of a copy speak for it.
  ::removexattr(path.c_str(), providedAttribute);
  stays(Eviction::changed, changed);
  fill(file, content);
  ASSERT_EQ(std::system(("cp --preserve=all '" + path + "' '" + (root / "copy") + "'").c_str()), 0);
  EXPECT_EQ(evict(open(root / "copy")), Eviction::changed);

  // Metadata is not content.
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  ASSERT_EQ(::rename(path.c_str(), (root / "renamed").c_str()), 0);
  ASSERT_EQ(::rename((root / "renamed").c_str(), path.c_str()), 0);
  const auto inode = statusOf(path).st_ino;
  EXPECT_EQ(evict(file), Eviction::evicted);
  expectPlaceholder(content.size());
  EXPECT_EQ(statusOf(path).st_ino, inode);
  EXPECT_TRUE(read(file.get()) == std::string(content.size(), 0));
  EXPECT_EQ(evict(file), Eviction::notPresent);
}

TEST_F(PlaceholderTest, NobodySeesContentGoWhileItCountsAsPresent) {
  succeeds(Placeholder::make(path, {content.size(), longAgo, std::nullopt}));
  const auto file = open(path);
  int evicted = 0, whole = 0, waited = 0;
  for (int round = 0; round < 60; ++round) {
    if (Placeholder(file.get()).state() != PlaceholderState::present) fill(file, content);
    std::thread program([&] {
      const auto reader = open(path, O_RDONLY);
      // Without the mark the content is there, and stays as long as the file is open.
      if (::fgetxattr(reader.get(), placeholderAttribute, nullptr, 0) >= 0) {
        ++waited;
      } else {
        EXPECT_TRUE(read(reader.get()) == content) << "round " << round;
        ++whole;
      }
    });
    const bool gone = evict(file) == Eviction::evicted;
    program.join();
    if (gone) ++evicted;
  }
  EXPECT_EQ(whole + waited, 60);
  EXPECT_LE(waited, evicted);
  // Whoever comes while the mark is made durable is waited for; the file is his again at once.
  EXPECT_EQ(*docsource::isFileInUse(file.get()), false);
}

TEST_F(PlaceholderTest, AnUnmarkedSparseFileCountsAsOneForOthers) {
  const auto file = Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(query(path).state, PlaceholderState::present) << "an empty document";
  ASSERT_EQ(::ftruncate(file.get(), 1 << 20U), 0);
  EXPECT_EQ(query(path).state, PlaceholderState::placeholder);
  EXPECT_EQ(query(path).changed, std::nullopt);
  EXPECT_EQ(Placeholder(file.get()).state(), PlaceholderState::present);
  ASSERT_EQ(::fsetxattr(file.get(), providedAttribute, "", 0, 0), 0);
  EXPECT_EQ(query(path).state, PlaceholderState::present);
  // Whatever the mark says, and whoever it names.
  for (const std::string mark : {"", "absent", "providing", "providing 1", "providing 1 1",
                                 "providing x y", "providing 99999999999999999999 1"}) {
    ASSERT_EQ(::fsetxattr(file.get(), placeholderAttribute, mark.data(), mark.size(), 0), 0);
    EXPECT_EQ(query(path).state, PlaceholderState::placeholder) << mark;
  }
  EXPECT_TRUE(
      docsource::placeholderStatus(root / "none").error().is(docsource::standardErrorDomain, 260));
  EXPECT_FALSE(docsource::placeholderStatus(root.path()).ok());
}

/// Marks of a provider's own.
class Memory final : public docsource::PlaceholderMarks {
 public:
  std::optional<std::string> get(int, const char* name) const override {
    const auto found = marks.find(name);
    return found == marks.end() ? std::nullopt : std::optional(found->second);
  }
  bool set(int, const char* name, const std::string& value) const override {
    if (isFull) errno = ENOSPC;
    if (!isFull) marks[name] = value;
    return !isFull;
  }
  bool clear(int, const char* name) const override {
    marks.erase(name);
    return true;
  }

  mutable std::map<std::string, std::string> marks;
  bool isFull = false;
};

TEST_F(PlaceholderTest, ContentGoesOnlyAfterTheMarkIsSet) {
  Memory marks;
  const auto file = Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  const Placeholder document(file.get(), marks);
  auto writer = document.fill();
  ASSERT_TRUE(writer.ok());
  succeeds(writer->write(content));
  succeeds(writer->finish({content.size(), longAgo, std::nullopt}));
  EXPECT_EQ(marks.marks.size(), 1U);
  EXPECT_LT(::fgetxattr(file.get(), providedAttribute, nullptr, 0), 0);

  marks.isFull = true;
  EXPECT_FALSE(document.fill().ok());
  EXPECT_FALSE(document.evict().ok());
  EXPECT_FALSE(document.reset({1, longAgo, std::nullopt}).ok());
  EXPECT_TRUE(read(file.get()) == content);
  marks.isFull = false;
  EXPECT_EQ(*document.evict(), Eviction::evicted);
  EXPECT_EQ(document.state(), PlaceholderState::placeholder);
}

}  // namespace
