#include "platform/log/Log.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using qx::Log;
using qx::LogLevel;

/// Standard error as a pipe while it exists. read() gives standard error back and returns what was
/// written.
class CapturedStandardError {
 public:
  CapturedStandardError() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    readEnd_.reset(ends[0]);
    const qx::FileDescriptor writeEnd(ends[1]);
    before_.reset(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    dup2(writeEnd.get(), STDERR_FILENO);
  }
  ~CapturedStandardError() { restore(); }

  std::string read() {
    restore();
    return readUntilClosed();
  }

  std::string readWhatIsThere() {
    std::string text(1 << 20, '\0');
    text.resize(static_cast<std::size_t>(::read(readEnd_.get(), text.data(), text.size())));
    return text;
  }

  /// Until somebody else has redirected standard error.
  std::string readUntilClosed() {
    std::string text;
    char part[4096];
    for (ssize_t count; (count = ::read(readEnd_.get(), part, sizeof part)) > 0;) {
      text.append(part, static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  void restore() {
    if (before_) dup2(before_.get(), STDERR_FILENO);
    before_.reset();
  }

  qx::FileDescriptor readEnd_;
  qx::FileDescriptor before_;
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

TEST(LogText, EscapesWhatWouldBreakALine) {
  EXPECT_EQ(qx::fillLogText("%s", {std::string("a\nb\r\t\x1b[1m\x7f\0z", 12)}),
            "a\\x0ab\\x0d\\x09\\x1b[1m\\x7f\\x00z");
  // U+0085 and U+009F are controls, U+00A0 and what lies beyond are not.
  EXPECT_EQ(qx::fillLogText("%s", {"\u0085\u009f\u00a0\u00e9\u4e2d\U0001f600"}),
            "\\x85\\x9f\u00a0\u00e9\u4e2d\U0001f600");
  // Not UTF-8: a stray control is escaped, everything else is left as it is.
  EXPECT_EQ(qx::fillLogText("%s", {"\xe4\xb8|\x9b|\xc2|\xff"}), "\xe4\xb8|\\x9b|\xc2|\xff");
  EXPECT_EQ(qx::fillLogText("%s\n", {""}), "\n");
}

TEST(Log, LineHasTimeProgramAndLevel) {
  unsetenv("JOURNAL_STREAM");
  Log log;
  log.setLowestLevel(LogLevel::debug);
  CapturedStandardError captured;
  const auto before = time(nullptr);
  log.write(LogLevel::fault, "[ERROR] Could not write to %@", "/a/b");
  log.write(LogLevel::standard, "[NOTICE] n");
  log.write(LogLevel::info, "[INFO] i");
  errno = ENOTTY;
  log.write(LogLevel::debug, "[DEBUG] d");
  EXPECT_EQ(errno, ENOTTY);
  const auto lines = linesOf(captured.read());
  ASSERT_EQ(lines.size(), 4U);
  const std::string rest[] = {"fault: [ERROR] Could not write to /a/b", "default: [NOTICE] n",
                              "info: [INFO] i", "debug: [DEBUG] d"};
  const std::regex form(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.\d{6}Z (.*))");
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(lines[i], parts, form)) << lines[i];
    tm stamp{};
    ASSERT_NE(strptime(parts[1].str().c_str(), "%Y-%m-%dT%H:%M:%S", &stamp), nullptr);
    EXPECT_GE(timegm(&stamp), before);
    EXPECT_LE(timegm(&stamp), time(nullptr));
    EXPECT_EQ(parts[2], std::string(program_invocation_short_name) + "[" +
                            std::to_string(getpid()) + "] " + rest[i]);
  }
}

TEST(Log, EnvironmentNamesTheLowestLevel) {
  for (const auto& [name, lowest] : {std::pair("fault", LogLevel::fault),
                                     {"default", LogLevel::standard},
                                     {"info", LogLevel::info},
                                     {"debug", LogLevel::debug},
                                     {"loud", LogLevel::standard}}) {
    setenv("DOCSOURCE_LOG", name, 1);
    const Log log;
    for (const auto level :
         {LogLevel::fault, LogLevel::standard, LogLevel::info, LogLevel::debug}) {
      EXPECT_EQ(log.isEnabled(level), level <= lowest) << name;
    }
  }
  unsetenv("DOCSOURCE_LOG");
  EXPECT_FALSE(Log().isEnabled(LogLevel::info));
  EXPECT_TRUE(Log().isEnabled(LogLevel::standard));
  int evaluated = 0;
  DS_LOG("[DEBUG] %d", ++evaluated);
  EXPECT_EQ(evaluated, 0) << "nothing is evaluated when the level is off";
}

TEST(Log, LongLineSurvivesAPipeThatFills) {
  const Log log;
  CapturedStandardError captured;
  std::string text;
  {
    // More than a pipe holds, and the pipe does not block: the rest follows when there is room.
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    ASSERT_EQ(fcntl(STDERR_FILENO, F_SETFL, flags | O_NONBLOCK), 0);
    std::jthread writer([&] {
      log.write(LogLevel::fault, "[ERROR] %s", std::string(1 << 20, 'x'));
      // Ends the reading below, which began before.
      const qx::FileDescriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
      dup2(null.get(), STDERR_FILENO);
    });
    text = captured.readUntilClosed();
  }
  EXPECT_GE(std::count(text.begin(), text.end(), 'x'), 1 << 20);
  EXPECT_TRUE(text.ends_with("x\n"));
}

TEST(Log, APipeThatNobodyReadsCostsMessagesAndNothingElse) {
  const Log log;
  Log::setPatience(std::chrono::milliseconds(1));
  CapturedStandardError captured;
  for (std::size_t i = 0; i < 100; ++i) {
    log.write(LogLevel::fault, "[ERROR] %s", std::string(i * 30, 'x'));
  }
  const auto kept = linesOf(captured.readWhatIsThere());
  log.write(LogLevel::fault, "[ERROR] more");
  const auto more = linesOf(captured.readWhatIsThere());
  // One that is cut off is ended before the next.
  log.write(LogLevel::fault, "[ERROR] %s", std::string(1 << 20, 'y'));
  EXPECT_TRUE(captured.readWhatIsThere().ends_with("yyy"));
  log.write(LogLevel::fault, "[ERROR] again");
  const auto again = linesOf(captured.read());
  Log::setPatience(std::chrono::seconds(2));

  ASSERT_EQ(more.size(), 2U);
  EXPECT_TRUE(more[0].ends_with("fault: [ERROR] more"));
  std::smatch lost;
  ASSERT_TRUE(std::regex_search(
      more[1], lost,
      std::regex(R"(default: \[NOTICE\] (\d+) messages before this one were lost)")));
  EXPECT_GT(kept.size(), 5U);
  EXPECT_EQ(kept.size() + std::stoul(lost[1]), 100U);
  ASSERT_EQ(again.size(), 3U);
  EXPECT_EQ(again[0], "");
  EXPECT_TRUE(again[1].ends_with("fault: [ERROR] again"));
}

TEST(Log, JournalGetsMessagesNativelyWhenStandardErrorLeadsThere) {
  // A journal of our own in a mount namespace of our own.
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("run", "/run", "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "needs CAP_SYS_ADMIN for a mount namespace";
  }
  std::filesystem::create_directories("/run/systemd/journal");
  const qx::FileDescriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
  ASSERT_EQ(bind(journal.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

  CapturedStandardError captured;
  struct stat status;
  ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
  const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  const Log log;
  setenv("JOURNAL_STREAM", (stream + "0").c_str(), 1);
  log.write(LogLevel::fault, "[ERROR] elsewhere");
  setenv("JOURNAL_STREAM", stream.c_str(), 1);
  log.write(LogLevel::debug, "[DEBUG] native %s", "a\nb");
  log.write(LogLevel::fault, "[ERROR] two");
  const std::string text = captured.read();
  EXPECT_TRUE(text.ends_with("fault: [ERROR] elsewhere\n")) << text;
  EXPECT_EQ(linesOf(text).size(), 1U);

  const auto receive = [&] {
    char part[4096];
    const ssize_t count = recv(journal.get(), part, sizeof part, MSG_DONTWAIT);
    return linesOf(std::string(part, static_cast<std::size_t>(std::max<ssize_t>(count, 0))));
  };
  const std::string name = std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name;
  EXPECT_EQ(receive(),
            (std::vector<std::string>{"MESSAGE=[DEBUG] native a\\x0ab", "PRIORITY=7", name}));
  EXPECT_EQ(receive(), (std::vector<std::string>{"MESSAGE=[ERROR] two", "PRIORITY=3", name}));
}

}  // namespace
