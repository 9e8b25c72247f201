#include "platform/sandbox/EncodedPath.h"

#include <limits.h>
#include <stdlib.h>

#include <array>
#include <cstdint>

#include "platform/base/Text.h"

namespace qx {
namespace {

bool isPlain(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("/-._~").find(character) != std::string_view::npos;
}

}  // namespace

std::string encodedPath(std::string_view path) {
  std::string text;
  for (char character : path) {
    if (isPlain(character)) {
      text += character;
    } else {
      auto byte = static_cast<std::uint8_t>(character);
      text += '%' + hexEncode(std::span(&byte, 1));
    }
  }
  return text;
}

std::optional<std::string> decodedPath(std::string_view text) {
  std::string path;
  while (!text.empty()) {
    if (text.front() != '%') {
      path += text.front();
      text.remove_prefix(1);
      continue;
    }
    auto byte = hexDecode(text.substr(1, 2));
    if (!byte || byte->size() != 1) return std::nullopt;
    path += static_cast<char>(byte->front());
    text.remove_prefix(3);
  }
  return path;
}

std::optional<std::string> canonicalEntryPath(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos || path.find('\0') != std::string::npos) return std::nullopt;
  auto name = path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return std::nullopt;
  std::array<char, PATH_MAX> directory;
  if (!realpath(path.substr(0, slash + 1).c_str(), directory.data())) return std::nullopt;
  std::string canonical = directory.data();
  if (canonical != "/") canonical += '/';
  return canonical + name;
}

}  // namespace qx
