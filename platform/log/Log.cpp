/// The system log: fills in a message and hands it to the journal, or writes it to standard error
/// as one line with its time, the program and the level.

#include "platform/log/Log.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "platform/base/Text.h"

namespace qx {

namespace {

std::atomic<int> patienceMilliseconds = 2000;
constexpr std::array levels{LogLevel::fault, LogLevel::standard, LogLevel::info, LogLevel::debug};

std::string_view levelName(LogLevel level) {
  switch (level) {
    case LogLevel::fault:
      return "fault";
    case LogLevel::standard:
      return "default";
    case LogLevel::info:
      return "info";
    case LogLevel::debug:
      return "debug";
  }
  return "default";
}

LogLevel levelFromEnvironment() {
  const char* name = std::getenv("DOCSOURCE_LOG");
  for (const LogLevel level : levels) {
    if (name && name == levelName(level)) return level;
  }
  return LogLevel::standard;
}

/// JOURNAL_STREAM gives device and inode of the stream that leads to the journal; a program whose
/// standard error was redirected since has inherited the variable all the same (systemd.exec(5)).
bool standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  if (!stream) return false;
  struct stat status;
  if (fstat(STDERR_FILENO, &status) != 0) return false;
  return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

bool sendToJournal(LogLevel level, const std::string& message) {
  std::string fields[] = {
      "MESSAGE=" + message,
      "PRIORITY=" + std::to_string(static_cast<int>(level)),
      std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name,
  };
  iovec parts[std::size(fields)];
  for (std::size_t i = 0; i < std::size(fields); ++i) {
    parts[i] = {fields[i].data(), fields[i].size()};
  }
  return sd_journal_sendv(parts, std::size(parts)) == 0;
}

/// "2026-11-21T10:15:30.123456Z"
std::string timeText() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts;
  gmtime_r(&now.tv_sec, &parts);
  char seconds[32];
  strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &parts);
  char text[64];
  std::snprintf(text, sizeof text, "%s.%06ldZ", seconds, now.tv_nsec / 1000);
  return text;
}

/// Whether standard error takes some more. A pipe that nobody reads must not bring the program to a
/// stand: it is waited for once, and not again until it has taken something.
bool isTaken() {
  static std::atomic<bool> isStuck = false;
  pollfd standardError{STDERR_FILENO, POLLOUT, 0};
  int ready = 0;
  do {
    ready = ::poll(&standardError, 1, isStuck ? 0 : patienceMilliseconds.load());
  } while (ready < 0 && errno == EINTR);
  isStuck = ready == 0;
  return ready != 0;
}

/// As much as can be written at a time without being held up in the middle: what a pipe keeps
/// together anyhow (pipe(7)), and anything where it goes to a file.
std::size_t pieceSizeFor(std::string_view line) {
  struct stat status;
  const bool isSmall = line.size() <= PIPE_BUF;
  if (isSmall || (fstat(STDERR_FILENO, &status) == 0 && S_ISREG(status.st_mode))) {
    return line.size();
  }
  return PIPE_BUF;
}

/// The whole line in one write(2) where that is possible, so that lines of several threads and
/// processes stay apart. False when it could not be written.
bool writeLine(std::string line) {
  static std::atomic<bool> isCut = false;
  if (isCut) line.insert(0, 1, '\n');
  const std::size_t pieceSize = pieceSizeFor(line);
  for (std::string_view rest = line; !rest.empty();) {
    if (!isTaken()) {
      isCut = isCut || rest.size() < line.size();
      return false;
    }
    const ssize_t written = ::write(STDERR_FILENO, rest.data(), std::min(rest.size(), pieceSize));
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      break;
    }
  }
  isCut = false;
  return true;
}

std::string lineOf(LogLevel level, const std::string& message) {
  std::string line = timeText() + " " + program_invocation_short_name;
  line += "[" + std::to_string(getpid()) + "] ";
  line += levelName(level);
  line += ": " + message + "\n";
  return line;
}

void writeToStandardError(LogLevel level, const std::string& message) {
  static std::atomic<std::size_t> lost = 0;
  if (!writeLine(lineOf(level, message))) {
    ++lost;
  } else if (const std::size_t count = lost.exchange(0); count > 0) {
    writeLine(lineOf(LogLevel::standard, "[NOTICE] " + std::to_string(count) +
                                             " messages before this one were lost: nobody read "
                                             "what is written here."));
  }
}

/// How many bytes the UTF-8 character at the front takes; 1 where there is no valid one.
std::size_t characterLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  const std::size_t length = lead < 0xc2 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  return length <= text.size() && isValidUTF8(text.substr(0, length)) ? length : 1;
}

/// A stray byte that an 8-bit terminal would take for a control character is escaped too.
void appendEscaped(std::string& result, std::string_view argument) {
  while (!argument.empty()) {
    const std::size_t length = characterLength(argument);
    const auto lead = static_cast<unsigned char>(argument[0]);
    const unsigned code =
        length == 2 && lead == 0xc2 ? static_cast<unsigned char>(argument[1]) : lead;
    const bool isControl = code < 0x20 || code == 0x7f || (code >= 0x80 && code <= 0x9f);
    if (length <= 2 && isControl) {
      const std::uint8_t byte[] = {static_cast<std::uint8_t>(code)};
      result += "\\x" + hexEncode(byte);
    } else {
      result += argument.substr(0, length);
    }
    argument.remove_prefix(length);
  }
}

}  // namespace

std::string logText(const Value& value) { return describe(value); }

std::string fillLogText(std::string_view text, std::initializer_list<std::string> arguments) {
  std::string result;
  const std::string* argument = arguments.begin();
  while (!text.empty()) {
    const std::size_t percent = text.find('%');
    result += text.substr(0, percent);
    if (percent == text.npos) break;
    text.remove_prefix(percent);
    const bool isPlaceholder = logPlaceholderCount(text.substr(0, 2)) == 1;
    if (isPlaceholder && argument != arguments.end()) {
      appendEscaped(result, *argument++);
      text.remove_prefix(2);
    } else {
      result += '%';
      text.remove_prefix(1);
    }
  }
  return result;
}

Log::Log() : lowest_(static_cast<int>(levelFromEnvironment())) {}

void Log::writeFilled(LogLevel level, std::string_view text,
                      std::initializer_list<std::string> arguments) const {
  const int savedError = errno;
  const std::string message = fillLogText(text, arguments);
  if (const Sink sink = sink_.load()) {
    sink(level, message);
  } else if (!standardErrorIsJournal() || !sendToJournal(level, message)) {
    writeToStandardError(level, message);
  }
  errno = savedError;
}

void Log::setPatience(std::chrono::milliseconds patience) {
  patienceMilliseconds = static_cast<int>(patience.count());
}

}  // namespace qx

qx::Log& ds_default_log() {
  static auto& log = *new qx::Log;
  return log;
}
