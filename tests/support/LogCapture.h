#pragma once

#include <string>
#include <string_view>

#include "platform/log/Log.h"
#include "tests/support/Mailbox.h"

namespace qx::test {

/// Keeps what this process logs while it lives. One at a time.
class LogCapture {
 public:
  LogCapture() {
    mailbox().take();
    ds_default_log().setSink([](LogLevel, const std::string& text) { mailbox().put(text); });
  }
  ~LogCapture() { ds_default_log().setSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The lines that hold a text.
  static std::size_t count(std::string_view part) {
    auto lines = mailbox().all();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(),
        [part](const std::string& line) { return line.find(part) != std::string::npos; }));
  }

  static Mailbox<std::string>& mailbox() {
    static auto& messages = *new Mailbox<std::string>;
    return messages;
  }
};

}  // namespace qx::test
