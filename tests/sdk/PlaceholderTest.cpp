// Placeholders on a real file system, in both ways of keeping programs from reading what is not
// there: what they show, what a crash leaves of them, and what keeps a document from becoming one.

#include "docsource/placeholder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <thread>

#include "tests/support/InChild.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using docsource::Descriptor;
using docsource::Placeholder;
using docsource::PlaceholderState;
using Eviction = docsource::Placeholder::Eviction;

constexpr const char* attribute = "user.docsource.placeholder";

/// Before 1970, with nanoseconds: both are easily lost.
const Placeholder::Time longAgo{std::chrono::nanoseconds(-86400'000000000LL + 123456789)};

class PlaceholderTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (::setxattr(root.path().c_str(), "user.docsource.test", "1", 1, 0) != 0) {
      GTEST_SKIP() << "no extended attributes on " << root.path();
    }
    ASSERT_EQ(::chmod(qx::test::temporaryRoot().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((qx::test::temporaryRoot() + "/run").c_str(), 0755), 0);
    ASSERT_EQ(::chmod(root.path().c_str(), 0777), 0);
    coordinate(GetParam());
  }
  static void coordinate(const std::string& how) {
    std::ofstream(qx::test::temporaryRoot() + "/run/coordination") << how << "\n";
  }
  static bool isCooperative() { return GetParam() == std::string("cooperative"); }

  static Descriptor open(const std::string& path, int flags = O_PATH) {
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
  static bool isOver(const docsource::Error& error, int errnum) {
    return error.underlying() && error.underlying()->is(docsource::posixErrorDomain, errnum);
  }
  static docsource::Result<void> fill(const std::string& path, const std::string& content) {
    const auto file = open(path);
    auto writer = Placeholder(file.get()).fill();
    if (!writer) return writer.error();
    if (auto written = writer->write(content); !written) return written;
    return writer->finish({content.size(), longAgo});
  }
  docsource::Result<Eviction> tryToEvict(const Placeholder::Announcement& announce = {}) const {
    const auto file = open(path);
    return Placeholder(file.get()).evict({content.size(), longAgo}, std::nullopt, announce);
  }
  Eviction evict(const Placeholder::Announcement& announce = {}) const {
    const auto result = tryToEvict(announce);
    EXPECT_TRUE(result.ok()) << result.error().text();
    return result ? *result : Eviction::notPresent;
  }
  void make(unsigned mode = 0644) const {
    succeeds(Placeholder::make(path, {content.size(), longAgo, std::nullopt, mode}));
  }
  void makePresent(unsigned mode = 0644) const {
    make(mode);
    succeeds(fill(path, content));
  }
  void expectPlaceholder(std::uint64_t size, mode_t mode) const {
    const auto status = query(path);
    EXPECT_EQ(status.state, PlaceholderState::placeholder);
    EXPECT_EQ(status.size, size);
    const std::uint64_t firstBlock = size < 512 || isCooperative() ? 0 : 4096;
    EXPECT_GE(status.occupied, firstBlock);
    // The attributes may take a block, and one in which the places of a large file were listed.
    EXPECT_LE(status.occupied, firstBlock + 4096 + (size < 1'000'000 ? 0 : 4096));
    const auto here = statusOf(path);
    EXPECT_EQ(here.st_mtim.tv_sec, -86400);
    EXPECT_EQ(here.st_mtim.tv_nsec, 123456789);
    EXPECT_EQ(here.st_mode & 07777U, isCooperative() ? 0 : mode);
  }
  void expectPresent(const std::string& expected, mode_t mode) const {
    EXPECT_EQ(query(path).state, PlaceholderState::present);
    EXPECT_LT(::getxattr(path.c_str(), attribute, nullptr, 0), 0);
    EXPECT_EQ(statusOf(path).st_mode & 07777U, mode);
    EXPECT_TRUE(read(open(path, O_RDONLY).get()) == expected);
  }

  const qx::test::TemporaryDirectory root;
  const std::string path = root / "document";
  /// Neither a whole number of blocks nor of pages.
  const std::string content = std::string(300'001, 'c') + "end";
};

INSTANTIATE_TEST_SUITE_P(, PlaceholderTest, testing::Values("access", "cooperative"),
                         [](const auto& mode) { return std::string(mode.param); });

TEST_P(PlaceholderTest, ShowsTheDocumentAndOccupiesNextToNothing) {
  constexpr std::uint64_t size = (5ULL << 30U) + 1;
  succeeds(Placeholder::make(path, {size, longAgo, longAgo, 0640}));
  expectPlaceholder(size, 0640);
  const auto made = statusOf(path);
  EXPECT_EQ(made.st_atim.tv_sec, -86400);
  EXPECT_EQ(*Placeholder::shapeOf(open(path).get())->mode, 0640U);

  // What is there already stays, be it a document.
  const auto again = Placeholder::make(path, {1, longAgo});
  ASSERT_FALSE(again.ok());
  EXPECT_TRUE(isOver(again.error(), EEXIST));
  EXPECT_EQ(statusOf(path).st_ino, made.st_ino);
  EXPECT_TRUE(Placeholder::make(root / "missing/document", {1, longAgo})
                  .error()
                  .is(docsource::standardErrorDomain, 260));

  // The document has another size now.
  for (const std::uint64_t other : {std::uint64_t{17}, size, std::uint64_t{0}}) {
    succeeds(Placeholder(open(path).get()).reset({other, longAgo}));
    expectPlaceholder(other, 0640);
  }
  // So are the keepers of its readers; platformd gives it its permissions again.
  const char* const ways[] = {"access", "cooperative"};
  for (const char* way : {ways[isCooperative() ? 0 : 1], GetParam()}) {
    coordinate(way);
    succeeds(Placeholder(open(path).get()).adapt());
    EXPECT_EQ(statusOf(path).st_mode & 07777U, 0U);
    EXPECT_EQ(query(path).state, PlaceholderState::placeholder);
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.path()), {}), 1);
}

TEST_P(PlaceholderTest, IsFilledWhereItIsOrByAnotherFile) {
  make(0440);
  ::setxattr(path.c_str(), "user.colour", "red", 3, 0);
  const auto inode = statusOf(path).st_ino;
  {
    const auto file = open(path);
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok()) << writer.error().text();
    EXPECT_EQ(query(path).state,
              isCooperative() ? PlaceholderState::placeholder : PlaceholderState::providing);
    EXPECT_EQ(evict(), Eviction::notPresent);
    const std::string_view bytes = content;
    succeeds(writer->writeAt(200'000, bytes.substr(200'000)));
    EXPECT_EQ(query(path).size, content.size());
    succeeds(writer->writeAt(0, bytes.substr(0, 100'000)));
    succeeds(writer->write(bytes.substr(100'000, 100'000)));
    struct stat status {};
    ASSERT_EQ(::fstat(writer->file(), &status), 0);
    succeeds(writer->finish({content.size(), longAgo}));
    EXPECT_EQ(statusOf(path).st_ino, status.st_ino);
    EXPECT_EQ(status.st_ino == inode, !isCooperative());
  }
  expectPresent(content, 0440);
  EXPECT_EQ(statusOf(path).st_mtim.tv_nsec, 123456789);
  EXPECT_EQ(::getxattr(path.c_str(), "user.colour", nullptr, 0), 3);

  // Brought up to date, to less than there was, and to a document that has holes.
  succeeds(fill(path, "short"));
  expectPresent("short", 0440);
  const auto file = open(path);
  auto writer = Placeholder(file.get()).fill();
  ASSERT_TRUE(writer.ok());
  succeeds(writer->write("holes"));
  succeeds(writer->finish({1 << 24U, longAgo, std::nullopt, 0600}));
  EXPECT_LT(query(path).occupied, query(path).size);
  EXPECT_EQ(query(path).state, PlaceholderState::present);
  EXPECT_EQ(statusOf(path).st_mode & 07777U, 0600U);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.path()), {}), 1);
}

TEST_P(PlaceholderTest, GivesUpWithoutATrace) {
  make();
  {
    const auto file = open(path);
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok());
    succeeds(writer->write(content + content));
    EXPECT_FALSE(writer->writeAt(~std::uint64_t{0}, "x").ok());
    EXPECT_FALSE(writer->finish({~std::uint64_t{0}, longAgo}).ok());
  }
  expectPlaceholder(content.size(), 0644);

  // A process that dies in the middle.
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
  ::kill(child, SIGKILL);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_EQ(query(path).state, PlaceholderState::placeholder);
  EXPECT_EQ(query(path).size, content.size());
  EXPECT_EQ(evict(), Eviction::notPresent);
  {
    const auto file = open(path);
    auto writer = Placeholder(file.get()).fill();
    ASSERT_TRUE(writer.ok());
    EXPECT_TRUE(read(writer->file()) == std::string(content.size(), 0));
  }
  succeeds(fill(path, content));
  expectPresent(content, 0644);
}

TEST_P(PlaceholderTest, ContentThatSomebodyUsesOrChangedStays) {
  makePresent(0640);
  // However the provider has opened it.
  for (const int way : {O_RDONLY, O_RDWR}) {
    const auto file = open(path, way);
    EXPECT_EQ(*Placeholder(file.get()).evict({content.size(), longAgo}), Eviction::evicted);
    expectPlaceholder(content.size(), 0640);
    succeeds(fill(path, content));
  }
  const auto stays = [&](Eviction because, const std::string& bytes) {
    EXPECT_EQ(evict(), because);
    expectPresent(bytes, 0640);
  };
  {
    const auto reader = open(path, O_RDONLY);
    const auto own = open(path, O_RDONLY);
    EXPECT_EQ(*docsource::isFileInUse(own.get()), true);
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
  EXPECT_EQ(*docsource::isFileInUse(open(path, O_RDONLY).get()), false);

  // One byte, the size as it was, in the same second.
  std::string changed = content;
  changed[1000] = 'X';
  ASSERT_EQ(::pwrite(open(path, O_RDWR).get(), "X", 1, 1000), 1);
  timespec times[2] = {{0, UTIME_OMIT}, {-86400, 123456788}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  stays(Eviction::changed, changed);
  succeeds(fill(path, content));

  // A provider that cannot note what becomes of it keeps it.
  EXPECT_FALSE(tryToEvict([](int) { return docsource::Error::posix(EIO, "The database"); }).ok());
  expectPresent(content, 0640);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.path()), {}), 1);

  // Metadata is not content.
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  ASSERT_EQ(::rename(path.c_str(), (root / "renamed").c_str()), 0);
  ASSERT_EQ(::rename((root / "renamed").c_str(), path.c_str()), 0);
  struct stat announced {};
  EXPECT_EQ(evict([&](int file) {
              EXPECT_EQ(::fstat(file, &announced), 0);
              return docsource::Result<void>();
            }),
            Eviction::evicted);
  expectPlaceholder(content.size(), 0600);
  EXPECT_EQ(statusOf(path).st_ino, announced.st_ino);
  EXPECT_TRUE(read(open(path, O_RDONLY).get()) == std::string(content.size(), 0));
  EXPECT_EQ(evict(), Eviction::notPresent);
}

TEST_P(PlaceholderTest, WhoWaitsToOpenItGetsTheContent) {
  makePresent();
  sigset_t broken;
  sigemptyset(&broken);
  sigaddset(&broken, SIGURG);
  ::pthread_sigmask(SIG_BLOCK, &broken, nullptr);
  std::string seen;
  std::thread program;
  // Nothing has been lost by then, and the file is held.
  EXPECT_EQ(evict([&](int) {
              program = std::thread([&] { seen = read(open(path, O_RDWR).get()); });
              EXPECT_EQ(::sigwaitinfo(&broken, nullptr), SIGURG);
              return docsource::Result<void>();
            }),
            Eviction::inUse);
  program.join();
  EXPECT_TRUE(seen == content);
  expectPresent(content, 0644);
  if (std::string_view(GetParam()) ==
      "access") {  // Who only reads need not wait, and is noticed all the same.
    std::optional<decltype(open(path, O_RDONLY))> reader;
    EXPECT_EQ(evict([&](int) {
                reader.emplace(open(path, O_RDONLY));
                return docsource::Result<void>();
              }),
              Eviction::inUse);
    EXPECT_TRUE(read(reader->get()) == content);
  }
  EXPECT_EQ(evict(), Eviction::evicted);
}

TEST_P(PlaceholderTest, NobodySeesContentGoWhileItCountsAsPresent) {
  make();
  int whole = 0, waited = 0;
  for (int round = 0; round < 60; ++round) {
    if (query(path).state != PlaceholderState::present) succeeds(fill(path, content));
    std::thread program([&] {
      const auto reader = open(path, O_RDONLY);
      // Without the mark the content is there, and stays as long as the file is open.
      if (::fgetxattr(reader.get(), attribute, nullptr, 0) >= 0) {
        ++waited;
      } else {
        EXPECT_TRUE(read(reader.get()) == content) << "round " << round;
        ++whole;
      }
    });
    const bool isEvicted = evict() == Eviction::evicted;
    program.join();
    // Who came while the mark was made durable has seen it, and has the content when it is
    // withdrawn.
    if (!isEvicted) {
      EXPECT_TRUE(read(open(path, O_RDONLY).get()) == content) << "round " << round;
    }
  }
  EXPECT_EQ(whole + waited, 60);
  // Whoever comes while the mark is made durable is waited for; the file is his again at once.
  EXPECT_EQ(*docsource::isFileInUse(open(path, O_RDONLY).get()), false);
}

TEST_P(PlaceholderTest, AMarkCountsOnTheInodeThatItWasMadeFor) {
  make();
  std::string mark(200, ' ');
  mark.resize(
      static_cast<std::size_t>(::getxattr(path.c_str(), attribute, mark.data(), mark.size())));
  EXPECT_TRUE(mark.starts_with("placeholder inode:" + std::to_string(statusOf(path).st_ino)))
      << mark;
  const auto other = root / "other";
  const auto set = [&](const std::string& value) {
    ASSERT_EQ(::setxattr(other.c_str(), attribute, value.data(), value.size(), 0), 0);
  };
  // Beside content and beside holes.
  for (const bool isSparse : {false, true}) {
    std::filesystem::remove(other);
    std::ofstream(other) << "content";
    if (isSparse) std::filesystem::resize_file(other, 1 << 20U);
    EXPECT_EQ(query(other).state, PlaceholderState::present);
    set(mark);
    EXPECT_EQ(query(other).state, PlaceholderState::present);
    EXPECT_EQ(Placeholder(open(other).get()).state(), PlaceholderState::present);
    // Whatever it says, and whoever it names.
    for (const std::string unnamed : {"", "absent", "providing", "providing 1", "providing 1 1",
                                      "providing x y", "providing 99999999999999999999 1"}) {
      set(unnamed);
      EXPECT_EQ(query(other).state,
                isSparse ? PlaceholderState::placeholder : PlaceholderState::present)
          << unnamed;
    }
  }
  // A restored attribute makes nothing of a document.
  succeeds(fill(path, content));
  ASSERT_EQ(::setxattr(path.c_str(), attribute, "placeholder inode:1:1.000000001", 31, 0), 0);
  EXPECT_EQ(query(path).state, PlaceholderState::present);
  EXPECT_EQ(evict(), Eviction::evicted);
  EXPECT_TRUE(
      docsource::placeholderStatus(root / "none").error().is(docsource::standardErrorDomain, 260));
  EXPECT_FALSE(docsource::placeholderStatus(root.path()).ok());
}

TEST_P(PlaceholderTest, AnOrdinaryUserNeverOpensOneThatHasNoContent) {
  EXPECT_EQ(qx::test::inChild([&] {
              if (!qx::test::dropPrivileges()) return 77;
              // What its owner may not write is filled all the same.
              make(0444);
              if (isCooperative()) {
                EXPECT_LT(::open(path.c_str(), O_RDONLY), 0);
                EXPECT_EQ(errno, EACCES);
              } else {
                // Who has no permissions yet is not guarded yet, whatever is announced.
                ::chmod(path.c_str(), 0);
                const auto before = statusOf(path);
                succeeds(Placeholder(open(path).get()).adapt());
                EXPECT_EQ(before.st_ctim.tv_nsec, statusOf(path).st_ctim.tv_nsec);
                succeeds(fill(path, content));
                EXPECT_NE(statusOf(path).st_ino, before.st_ino);
                ::chmod(path.c_str(), 0444);
              }
              const pid_t reader = ::fork();
              while (reader == 0) {
                const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
                if (isCooperative() && file && read(file.get()) != content) ::_exit(1);
              }
              for (int round = 0; round < 100; ++round) {
                succeeds(fill(path, content));
                EXPECT_EQ(query(path).state, PlaceholderState::present);
                EXPECT_EQ(statusOf(path).st_mode & 07777U, 0444U) << round;
                (void)tryToEvict();
              }
              int status = 0;
              const bool stillReads = ::waitpid(reader, &status, WNOHANG) == 0;
              ::kill(reader, SIGKILL);
              ::waitpid(reader, nullptr, 0);
              return stillReads && !HasFailure() ? 0 : 1;
            }),
            0);
}

TEST_P(PlaceholderTest, WhatAProgramWritesAfterItEmptiedItStays) {
  if (isCooperative()) GTEST_SKIP() << "filled by another file";
  using Step = std::function<docsource::Result<void>(docsource::PlaceholderWriter&)>;
  const Step steps[] = {
      [&](auto& writer) { return writer.write(content); },
      [&](auto& writer) {
        return writer.publish({{0, content.size()}});
      },
      [&](auto& writer) { return writer.copy(open("/dev/null", O_RDONLY).get()); },
      [&](auto& writer) {
        return writer.finish({content.size(), longAgo});
      },
      {},  // given up
  };
  const auto isEmptied = [&](const Step& step, bool isFoundByPlatformd) {
    make();
    const auto file = open(path);
    {
      auto writer = Placeholder(file.get()).fill();
      ASSERT_TRUE(writer.ok());
      succeeds(writer->write(content));
      std::ofstream saved(path);
      if (isFoundByPlatformd) ::removexattr(path.c_str(), attribute);
      saved << "saved" << std::flush;
      const auto done = step ? step(*writer) : docsource::Result<void>();
      EXPECT_TRUE(!step || (!done && isOver(done.error(), ESTALE)));
    }
    EXPECT_EQ(read(open(path, O_RDONLY).get()), "saved");
    std::string mark(200, ' ');
    const ssize_t size = ::getxattr(path.c_str(), attribute, mark.data(), mark.size());
    EXPECT_EQ(size > 0 && mark.starts_with("emptied "), !isFoundByPlatformd);
    EXPECT_TRUE(!Placeholder(file.get()).fill(false, true).ok());
    EXPECT_EQ(Placeholder(file.get()).reset({content.size(), longAgo}).ok(), isFoundByPlatformd);
    std::filesystem::remove(path);
  };
  for (const auto& step : steps) {
    isEmptied(step, true);
    isEmptied(step, false);
  }
}

TEST_P(PlaceholderTest, WhatAProgramPutInItsPlaceStays) {
  if (!isCooperative()) GTEST_SKIP() << "filled in place, whatever has the name";
  make();
  const auto file = open(path);
  auto writer = Placeholder(file.get()).fill();
  ASSERT_TRUE(writer.ok());
  succeeds(writer->write(content));
  std::ofstream(root / "saved") << "saved";
  std::filesystem::rename(root / "saved", path);
  const auto finished = writer->finish({content.size(), longAgo});
  EXPECT_TRUE(!finished && isOver(finished.error(), ESTALE));
  EXPECT_EQ(read(open(path, O_RDONLY).get()), "saved");

  // Under two names there are two documents, which stay one.
  std::filesystem::remove(path);
  makePresent();
  std::filesystem::create_hard_link(path, root / "second");
  EXPECT_EQ(evict(), Eviction::inUse);
  EXPECT_EQ(statusOf(path).st_ino, statusOf(root / "second").st_ino);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.path()), {}), 2);
}

}  // namespace
