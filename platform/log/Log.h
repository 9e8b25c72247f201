#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/base/Value.h"

/// The system log.
///
/// A message begins with its tag, and the tag fixes its level; DS_LOG reads the level off the text
/// at compile time and checks there that the arguments are as many as the placeholders. A level
/// that is off costs one load and a branch, and evaluates no argument:
///
///     DS_LOG("[ERROR] Could not write to %@", path);
///
/// `%@` is replaced by an object (absent: "(null)"; a URL: its absolute string; an error: its
/// text; an array: "(a, b)"; a dictionary: "{k: v}"; an extension: its identifier and bundle
/// path), `%s` by a text, `%d` by an integer. Control characters in what is filled in are written
/// \xNN, so that one message is one line.
///
/// Where standard error is the journal (JOURNAL_STREAM, systemd.exec(5)) messages go there
/// natively; elsewhere one line each to standard error, in a single write. Any thread may log.

namespace qx {

/// In falling order; the value is the journal's priority (syslog(3)).
enum class LogLevel : int { fault = 3, standard = 5, info = 6, debug = 7 };

/// The level that a message's tag fixes. DS_LOG has it evaluated at compile time, where a text with
/// another tag does not compile.
constexpr LogLevel logLevelOf(std::string_view text) {
  if (text.starts_with("[ERROR]")) return LogLevel::fault;
  if (text.starts_with("[NOTICE]")) return LogLevel::standard;
  if (text.starts_with("[INFO]")) return LogLevel::info;
  if (text.starts_with("[DEBUG]")) return LogLevel::debug;
  throw "a message begins with its tag";
}

constexpr std::size_t logPlaceholderCount(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] == '%' && (text[i + 1] == '@' || text[i + 1] == 's' || text[i + 1] == 'd')) ++count;
  }
  return count;
}

/// How many arguments; never evaluated.
template <class... Arguments>
std::integral_constant<std::size_t, sizeof...(Arguments)> logCount(const Arguments&...);

/// What a `%@`, `%s` or `%d` is filled with. Types of other folders add an overload of
/// logText(const T&) beside themselves, found by argument-dependent lookup.
std::string logText(const Value& value);
inline std::string logText(const std::string& value) { return value; }
inline std::string logText(std::string_view value) { return std::string(value); }
inline std::string logText(const char* value) { return value; }
inline std::string logText(const URL& value) { return value.absoluteString(); }
inline std::string logText(const UUID& value) { return value.text(); }
inline std::string logText(const Error& value) { return value.text(); }
template <class T>
requires std::is_integral_v<T> std::string logText(T value) { return std::to_string(value); }
template <class T>
std::string logText(const std::optional<T>& value) {
  return value ? logText(*value) : std::string("(null)");
}
template <class T>
std::string logText(const std::shared_ptr<T>& value) {
  return value ? logText(*value) : std::string("(null)");
}

class Log {
 public:
  bool isEnabled(LogLevel level) const {
    return static_cast<int>(level) <= lowest_.load(std::memory_order_relaxed);
  }

  /// The lowest level that is recorded from now on. At the start it is what DOCSOURCE_LOG names
  /// ("fault", "default", "info", "debug"), or default.
  void setLowestLevel(LogLevel level) {
    lowest_.store(static_cast<int>(level), std::memory_order_relaxed);
  }

  template <class... Arguments>
  void write(LogLevel level, std::string_view text, const Arguments&... arguments) const {
    writeFilled(level, text, {logText(arguments)...});
  }

  /// Receives the messages instead of the journal or standard error, for tests; when it is absent
  /// they go there again. `text` is the filled-in message without time, name and level.
  using Sink = void (*)(LogLevel level, const std::string& text);
  void setSink(Sink sink) { sink_.store(sink); }

  /// How long to wait for a standard error that takes no more (a pipe that nobody reads) before
  /// messages are dropped until it does. It is two seconds except in tests. The log then says how
  /// many were dropped.
  static void setPatience(std::chrono::milliseconds patience);

  Log();

 private:
  void writeFilled(LogLevel level, std::string_view text,
                   std::initializer_list<std::string> arguments) const;

  std::atomic<int> lowest_;
  std::atomic<Sink> sink_{nullptr};
};

/// Returns `text` with its placeholders replaced in order and control characters of the arguments
/// escaped.
std::string fillLogText(std::string_view text, std::initializer_list<std::string> arguments);

}  // namespace qx

/// The daemon's log handle; the same one for the life of the process.
qx::Log& ds_default_log();

#define DS_LOG(text, ...)                                                                      \
  do {                                                                                         \
    static_assert(qx::logPlaceholderCount(text) == decltype(qx::logCount(__VA_ARGS__))::value, \
                  "as many arguments as placeholders");                                        \
    constexpr qx::LogLevel dsLogLevel = qx::logLevelOf(text);                                  \
    if (ds_default_log().isEnabled(dsLogLevel)) {                                              \
      ds_default_log().write(dsLogLevel, text __VA_OPT__(, ) __VA_ARGS__);                     \
    }                                                                                          \
  } while (false)
