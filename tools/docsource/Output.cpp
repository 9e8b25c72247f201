// Printing for programs and for people. Identifiers, paths and names are opaque bytes chosen by
// others: whatever is in them, JSON stays JSON and a row stays a row.

#include "tools/docsource/Output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "platform/base/Text.h"
#include "tools/docsource/Command.h"

namespace tool {
namespace {

/// The length of the character at the start of the text; 0 when it is not valid UTF-8.
std::size_t characterLength(std::string_view text) {
  for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
    if (qx::isValidUTF8(text.substr(0, length))) return length;
  }
  return 0;
}

/// Four digits or two.
std::string hexadecimal(unsigned char byte, int digits) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%0*x", digits, static_cast<unsigned>(byte));
  return text.data();
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    const auto byte = static_cast<unsigned char>(text.front());
    const std::size_t length = characterLength(text);
    if (length == 0) {
      result += "\\ufffd";
    } else if (byte == '"' || byte == '\\') {
      result += {'\\', text.front()};
    } else if (byte < 0x20 || byte == 0x7f) {
      result += "\\u" + hexadecimal(byte, 4);
    } else {
      result += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result + '"';
}

std::string number(double value) {
  if (!std::isfinite(value)) return "null";
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%.*g", std::numeric_limits<double>::max_digits10, value);
  return text.data();
}

std::string dateText(qx::Date date) {
  const std::time_t seconds = date.time_since_epoch().count();
  std::tm fields{};
  std::array<char, 40> text{};
  ::gmtime_r(&seconds, &fields);
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &fields);
  return text.data();
}

/// One overload per class of value.
struct JSON {
  std::string operator()(qx::Value::Null) const { return "null"; }
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(double value) const { return number(value); }
  std::string operator()(const std::string& value) const { return quoted(value); }
  std::string operator()(const qx::Bytes& value) const { return quoted(qx::base64Encode(value)); }
  std::string operator()(qx::Date value) const { return quoted(dateText(value)); }
  std::string operator()(const qx::URL& value) const { return quoted(value.absoluteString()); }
  std::string operator()(const qx::UUID& value) const { return quoted(qx::describe(value)); }
  std::string operator()(const qx::SharedDescriptor&) const { return "null"; }
  std::string operator()(const qx::Error& value) const {
    return toJSON(
        qx::Dictionary{{"domain", value.domain()}, {"code", value.code()}, {"text", value.text()}});
  }
  std::string operator()(const qx::Array& value) const {
    std::string result = "[";
    for (const auto& element : value) {
      if (result.size() > 1) result += ", ";
      result += toJSON(element);
    }
    return result + "]";
  }
  std::string operator()(const qx::Dictionary& value) const {
    std::string result = "{";
    for (const auto& [key, element] : value) {
      if (result.size() > 1) result += ", ";
      result += quoted(key) + ": " + toJSON(element);
    }
    return result + "}";
  }
};

/// The columns that the text takes, one for each character.
std::size_t width(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

/// Whether the character has a terminal show what follows in another order than it stands in, so
/// that a name reads like another one: U+202A to U+202E, and U+2066 to U+2069.
bool turnsText(std::string_view character) {
  return (character >= "\u202a" && character <= "\u202e") ||
         (character >= "\u2066" && character <= "\u2069");
}

}  // namespace

std::string toJSON(const qx::Value& value) { return std::visit(JSON(), value.content()); }

std::string onOneLine(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const auto byte = static_cast<unsigned char>(text.front());
    const std::size_t length = characterLength(text);
    // The control characters of ISO 6429 beyond ASCII are two bytes, 0xc2 and one below 0xa0.
    const bool isControl = length == 0 || byte < 0x20 || byte == 0x7f ||
                           (byte == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0) ||
                           turnsText(text.substr(0, length));
    if (isControl) {
      for (const char c : text.substr(0, std::max<std::size_t>(length, 1))) {
        result += "\\x" + hexadecimal(static_cast<unsigned char>(c), 2);
      }
    } else {
      result += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

std::string table(const std::vector<std::string>& headings,
                  const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::vector<std::string>> lines{headings};
  for (const auto& row : rows) {
    auto& line = lines.emplace_back();
    for (const auto& cell : row) line.push_back(onOneLine(cell));
  }
  std::vector<std::size_t> widths(headings.size());
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], width(line[i]));
  }
  std::string text;
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      text += line[i];
      text += i + 1 < line.size() ? std::string(widths[i] - width(line[i]) + 2, ' ') : "\n";
    }
  }
  return text;
}

std::string sizeText(std::uint64_t bytes) {
  constexpr std::array units{"kB", "MB", "GB", "TB", "PB", "EB"};
  if (bytes < 1000) return std::to_string(bytes) + " B";
  auto amount = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  for (; amount >= 999.95 && unit + 1 < units.size(); ++unit) amount /= 1000;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", amount, units[unit]);
  return text.data();
}

bool print(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      std::fprintf(stderr, "standard output: %s\n", std::strerror(errno));
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

int answer(bool json, const qx::Dictionary& object, std::string_view text) {
  const bool printed = json ? print(toJSON(object) + "\n") : print(text);
  return printed ? success : operationFailed;
}

}  // namespace tool
