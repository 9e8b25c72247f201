// What is left of a document when the power fails before any system call that changes a file: the
// program that changes it is stopped there, and the disk has by then whatever the kernel might have
// written.

#include <sys/fanotify.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <fstream>
#include <functional>
#include <optional>

#include "docsource/placeholder.h"
#include "tests/support/Disk.h"
#include "tests/support/TemporaryRoot.h"

namespace {

using namespace qx;
using namespace qx::test;
using docsource::Placeholder;
using docsource::PlaceholderState;

/// The number of the call that the process is about to make, if it changes a file or makes it
/// durable.
std::optional<long> changeOf(pid_t process) {
  __ptrace_syscall_info call{};
  ::ptrace(PTRACE_GET_SYSCALL_INFO, process, reinterpret_cast<void*>(sizeof call), &call);
  constexpr std::array changes{SYS_pwrite64,    SYS_fallocate, SYS_ftruncate, SYS_setxattr,
                               SYS_removexattr, SYS_fchmod,    SYS_utimensat, SYS_linkat,
                               SYS_renameat2,   SYS_unlinkat,  SYS_fsync};
  const auto number = static_cast<long>(call.entry.nr);
  const bool isOne = std::find(changes.begin(), changes.end(), number) != changes.end();
  return call.op == PTRACE_SYSCALL_INFO_ENTRY && isOne ? std::optional(number) : std::nullopt;
}

/// Runs `body` in a child up to before its change of that number, and tells which call that is.
/// False when it ended before.
bool runUntil(int change, const std::function<void()>& body,
              const std::function<void(long call)>& there) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    body();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  // Without it the kernel does not tell a call's beginning (PTRACE_GET_SYSCALL_INFO of ptrace(2)).
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
  bool isSynced = true;
  std::optional<long> call;
  for (int seen = 0; WIFSTOPPED(status) && seen < change;) {
    ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    ::waitpid(child, &status, 0);
    call = WIFSTOPPED(status) ? changeOf(child) : std::nullopt;
    if (!call) continue;
    ++seen;
    // Not every file system keeps to this order by itself.
    const bool isNaming = *call == SYS_linkat || *call == SYS_renameat2;
    EXPECT_TRUE(isSynced || !isNaming) << "a name for what is not on the disk, in call " << seen;
    isSynced = *call == SYS_fsync || (isSynced && (isNaming || *call == SYS_unlinkat));
  }
  if (!WIFSTOPPED(status)) return false;
  // The call is not carried out any more, and a lease is nobody's.
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  there(*call);
  return true;
}

const std::string before(200'000, 'b');
const std::string after(260'000, 'a');
const Placeholder::Time time{std::chrono::nanoseconds(1'700'000'000'123'456'789)};

class PlaceholderPowerFailureTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (const auto why = disk_.make(); !why.empty()) GTEST_SKIP() << why;
    std::ofstream(temporaryRoot() + "/run/coordination") << GetParam() << "\n";
  }

  std::string path() const { return disk_.path() + "/document"; }
  void fill(const std::string& content) const {
    const FileDescriptor file(::open(path().c_str(), O_PATH | O_CLOEXEC));
    auto writer = Placeholder(file.get()).fill();
    if (writer && writer->write(content)) (void)writer->finish({content.size(), time});
  }

  void make() const { ASSERT_TRUE(Placeholder::make(path(), {before.size(), time}).ok()); }
  void makePresent() const {
    make();
    fill(before);
  }
  void evict() const {
    const FileDescriptor file(::open(path().c_str(), O_PATH | O_CLOEXEC));
    (void)Placeholder(file.get()).evict({before.size(), time});
  }

  /// `prepare` makes what there is before, which is then on the disk.
  void survives(const std::function<void()>& prepare, const std::function<void()>& change) {
    constexpr int fewestCalls = 4;
    constexpr int mostCalls = 50;
    for (const bool contentFirst : {true, false}) {
      int call = 1;
      for (; call < mostCalls; ++call) {
        ::unlink(path().c_str());
        prepare();
        FileDescriptor root(::open(disk_.path().c_str(), O_RDONLY | O_CLOEXEC));
        ::syncfs(root.get());
        const bool goesOn = runUntil(call, change, [&](long) { write(root.get(), contentFirst); });
        if (!goesOn) write(root.get(), contentFirst);
        disk_.fail();
        // Nobody has it open any more.
        root.reset();
        disk_.unmount();
        ASSERT_TRUE(disk_.mount());
        check(call, contentFirst);
        if (!goesOn) break;
      }
      EXPECT_LT(call, mostCalls);
      EXPECT_GT(call, fewestCalls);
    }
  }

 private:
  /// What a disk may have at any moment: content without what is known about it, or the other way
  /// round.
  void write(int root, bool contentFirst) const {
    if (contentFirst) {
      const FileDescriptor file(::open(path().c_str(), O_RDONLY | O_CLOEXEC));
      ::sync_file_range(
          file.get(), 0, 0,
          SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
    } else {
      const FileDescriptor other(::openat(root, "other", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
      ::fsync(other.get());
    }
  }
  void check(int call, bool contentFirst) const {
    const auto status = docsource::placeholderStatus(path());
    if (!status) return;  // not there yet
    if (status->state != PlaceholderState::present) return checkParts(call);
    const auto content = FileManager::readFile(path());
    ASSERT_TRUE(content.ok());
    EXPECT_TRUE(*content == before || *content == after)
        << "before call " << call << (contentFirst ? ", content first" : ", content last") << ": "
        << content->size() << " bytes, " << std::count(content->begin(), content->end(), '\0')
        << " of them zero";
  }

  /// What the next that fills it may go on with.
  void checkParts(int call) const {
    const FileDescriptor file(::open(path().c_str(), O_PATH | O_CLOEXEC));
    const auto writer = Placeholder(file.get()).fill(true);
    ASSERT_TRUE(writer.ok());
    const auto content = FileManager::readFile(path());
    for (const auto& [begin, end] : writer->parts()) {
      EXPECT_TRUE(content->substr(begin, end - begin) == after.substr(begin, end - begin))
          << "before call " << call;
    }
  }

  Disk disk_;
};

INSTANTIATE_TEST_SUITE_P(, PlaceholderPowerFailureTest, testing::Values("access", "cooperative"),
                         [](const auto& mode) { return std::string(mode.param); });

TEST_P(PlaceholderPowerFailureTest, LeavesAPlaceholderOrTheWholeContent) {
  const auto make = [&] { this->make(); };
  const auto makePresent = [&] { this->makePresent(); };
  survives([] {}, make);
  survives(make, [&] { fill(after); });
  survives(make, [&] {
    constexpr std::size_t first = 100'000;
    const FileDescriptor file(::open(path().c_str(), O_PATH | O_CLOEXEC));
    auto writer = Placeholder(file.get()).fill();
    if (writer && writer->write(after.substr(0, first)) && writer->publish({{0, first}}) &&
        writer->write(after.substr(first))) {
      (void)writer->finish({after.size(), time});
    }
  });
  survives(makePresent, [&] { fill(after); });
  survives(makePresent, [&] { evict(); });
  survives(makePresent, [&] {
    const FileDescriptor file(::open(path().c_str(), O_PATH | O_CLOEXEC));
    (void)Placeholder(file.get()).reset({after.size(), time});
  });
}

/// Where nobody is asked any more who opens the file, as platformd has it for content.
TEST_P(PlaceholderPowerFailureTest, WhoOpensItIsAskedAgainBeforeContentGoes) {
  const std::array takesContent{SYS_ftruncate, SYS_fallocate, SYS_pwrite64};
  int taken = 0;
  bool goesOn = true;
  for (int call = 1; goesOn; ++call) {
    ::unlink(path().c_str());
    makePresent();
    const FileDescriptor group(::fanotify_init(FAN_NONBLOCK | FAN_CLOEXEC, O_RDONLY));
    for (const unsigned kind : {0U, unsigned{FAN_MARK_IGNORED_MASK}}) {
      ASSERT_EQ(
          ::fanotify_mark(group.get(), FAN_MARK_ADD | kind, FAN_OPEN, AT_FDCWD, path().c_str()), 0);
    }
    const auto isTold = [&] {
      fanotify_event_metadata event{};
      const bool isOne = ::read(group.get(), &event, sizeof event) > 0;
      if (isOne) ::close(event.fd);
      return isOne;
    };
    goesOn = runUntil(
        call, [&] { evict(); },
        [&](long next) {
          if (std::find(takesContent.begin(), takesContent.end(), next) == takesContent.end())
            return;
          ++taken;
          while (isTold()) continue;
          const auto content = FileManager::readFile(path());
          // Or it goes as a whole, with its file.
          const bool isAnother = GetParam() == std::string("cooperative");
          EXPECT_TRUE(isAnother ? *content == before : isTold()) << "before call " << call;
        });
  }
  EXPECT_GT(taken, 0);
}

}  // namespace
