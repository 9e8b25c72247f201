#include "platform/base/URL.h"

#include <algorithm>
#include <cstdint>

#include "platform/base/Text.h"

namespace qx {
namespace {

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isUnreserved(char c) {
  return isLetter(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool equalsIgnoringCase(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if ((isLetter(text[i]) ? text[i] | 0x20 : text[i]) != lower[i]) return false;
  }
  return true;
}

std::optional<std::string_view> schemeOf(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 || !isLetter(text[0])) return std::nullopt;
  for (const char c : text.substr(0, colon)) {
    if (!isLetter(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
  }
  return text.substr(0, colon);
}

/// Where query or fragment begin. Two searches for one character are quicker than one for two.
std::size_t endOfPath(std::string_view text) {
  return std::min({text.find('?'), text.find('#'), text.size()});
}

void appendEncoded(std::string& text, std::string_view path) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  for (const char c : path) {
    if (isUnreserved(c) || c == '/') {
      text += c;
    } else {
      const auto byte = static_cast<std::uint8_t>(c);
      text += '%';
      text += digits[byte >> 4];
      text += digits[byte & 15];
    }
  }
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  if (!schemeOf(text)) return std::nullopt;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return std::nullopt;
  }
  return URL(std::string(text));
}

URL URL::fileURL(std::string_view path, bool isDirectory) {
  std::string text = "file://";
  text.reserve(text.size() + path.size() + 8);
  appendEncoded(text, path);
  if (isDirectory && text.back() != '/') text += '/';
  return URL(std::move(text));
}

std::optional<std::string> URL::path() const {
  std::string_view rest = text_;
  const auto scheme = schemeOf(rest);
  if (!scheme || !equalsIgnoringCase(*scheme, "file")) return std::nullopt;
  rest.remove_prefix(scheme->size() + 1);
  rest = rest.substr(0, endOfPath(rest));
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const std::string_view host = rest.substr(0, rest.find('/'));
    if (!host.empty() && !equalsIgnoringCase(host, "localhost")) return std::nullopt;
    rest.remove_prefix(host.size());
  }
  if (!rest.starts_with('/')) return std::nullopt;

  std::string path;
  path.reserve(rest.size());
  for (;;) {
    const std::size_t escape = rest.find('%');
    path += rest.substr(0, escape);
    if (escape == std::string_view::npos) break;
    const auto byte = hexByte(rest.substr(escape + 1, 2));
    if (!byte) return std::nullopt;
    path += static_cast<char>(*byte);
    rest.remove_prefix(escape + 3);
  }
  if (path.find('\0') != std::string::npos) return std::nullopt;
  return path;
}

URL URL::URLByAppendingPathComponent_isDirectory(std::string_view component,
                                                 bool isDirectory) const {
  const std::size_t end = endOfPath(text_);
  std::string text = text_.substr(0, end);
  if (!text.ends_with('/')) text += '/';
  appendEncoded(text, component);
  if (isDirectory && !text.ends_with('/')) text += '/';
  text.append(text_, end);
  return URL(std::move(text));
}

}  // namespace qx
