#include "platform/base/Text.h"

#include <array>
#include <cstring>

namespace qx {
namespace {

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::uint8_t notADigit = 0xff;
constexpr std::uint8_t whiteSpace = 0xfe;

constexpr std::array<std::uint8_t, 256> base64Digits = [] {
  std::array<std::uint8_t, 256> digits{};
  digits.fill(notADigit);
  for (std::size_t i = 0; i < base64Alphabet.size(); ++i) {
    digits[static_cast<unsigned char>(base64Alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  for (const char c : {' ', '\t', '\n', '\r', '\v', '\f'}) {
    digits[static_cast<unsigned char>(c)] = whiteSpace;
  }
  return digits;
}();

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool isValidUTF8(std::string_view text) {
  const auto* byte = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = byte + text.size();
  while (byte != end) {
    if (end - byte >= 8) {
      std::uint64_t word;
      std::memcpy(&word, byte, sizeof word);
      if ((word & 0x8080808080808080u) == 0) {
        byte += 8;
        continue;
      }
    }
    if (*byte < 0x80) {
      ++byte;
      continue;
    }
    // The second byte's range excludes overlong forms, surrogates and what lies past U+10FFFF.
    int length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (*byte >= 0xc2 && *byte <= 0xdf) {
      length = 2;
    } else if (*byte >= 0xe0 && *byte <= 0xef) {
      length = 3;
      if (*byte == 0xe0) low = 0xa0;
      if (*byte == 0xed) high = 0x9f;
    } else if (*byte >= 0xf0 && *byte <= 0xf4) {
      length = 4;
      if (*byte == 0xf0) low = 0x90;
      if (*byte == 0xf4) high = 0x8f;
    } else {
      return false;
    }
    if (end - byte < length || byte[1] < low || byte[1] > high) return false;
    for (int i = 2; i < length; ++i) {
      if ((byte[i] & 0xc0) != 0x80) return false;
    }
    byte += length;
  }
  return true;
}

std::string hexEncode(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::optional<std::vector<std::uint8_t>> hexDecode(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const auto byte = hexByte(text.substr(i, 2));
    if (!byte) return std::nullopt;
    bytes.push_back(*byte);
  }
  return bytes;
}

std::optional<std::uint8_t> hexByte(std::string_view digits) {
  if (digits.size() != 2) return std::nullopt;
  const int high = hexDigit(digits[0]);
  const int low = hexDigit(digits[1]);
  if (high < 0 || low < 0) return std::nullopt;
  return static_cast<std::uint8_t>(high << 4 | low);
}

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    const std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                (count > 1 ? static_cast<std::uint32_t>(bytes[i + 1]) << 8 : 0) |
                                (count > 2 ? bytes[i + 2] : 0u);
    text += base64Alphabet[group >> 18];
    text += base64Alphabet[group >> 12 & 63];
    text += count > 1 ? base64Alphabet[group >> 6 & 63] : '=';
    text += count > 2 ? base64Alphabet[group & 63] : '=';
  }
  return text;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t group = 0;
  int digits = 0;
  int padding = 0;
  for (const char c : text) {
    const std::uint8_t digit = base64Digits[static_cast<unsigned char>(c)];
    if (digit == whiteSpace) continue;
    if (c == '=') {
      if (++padding > 2 || digits + padding > 4 || digits < 2) return std::nullopt;
      continue;
    }
    if (digit == notADigit || padding != 0) return std::nullopt;
    group = group << 6 | digit;
    if (++digits == 4) {
      bytes.push_back(static_cast<std::uint8_t>(group >> 16));
      bytes.push_back(static_cast<std::uint8_t>(group >> 8));
      bytes.push_back(static_cast<std::uint8_t>(group));
      group = 0;
      digits = 0;
    }
  }
  if (digits == 0) return padding == 0 ? std::optional(std::move(bytes)) : std::nullopt;
  // Bits that the padding cuts off must be zero, so that bytes have one text only.
  if (digits + padding != 4) return std::nullopt;
  if (digits == 2) {
    if ((group & 0xf) != 0) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(group >> 4));
  } else {
    if ((group & 0x3) != 0) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(group >> 10));
    bytes.push_back(static_cast<std::uint8_t>(group >> 2));
  }
  return bytes;
}

}  // namespace qx
