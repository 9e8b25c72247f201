#include "platform/base/UUID.h"

#include <sodium.h>

#include <algorithm>
#include <array>

#include "platform/base/Text.h"

namespace qx {

UUID UUID::random() {
  [[maybe_unused]] static const int initialised = sodium_init();
  UUID uuid;
  // The system is asked for many at a time.
  thread_local std::array<std::uint8_t, 64 * sizeof uuid.bytes> random;
  thread_local std::size_t left = 0;
  if (left == 0) {
    randombytes_buf(random.data(), random.size());
    left = random.size();
  }
  left -= uuid.bytes.size();
  std::copy_n(random.data() + left, uuid.bytes.size(), uuid.bytes.begin());
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0f) | 0x40);
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3f) | 0x80);
  return uuid;
}

std::optional<UUID> UUID::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string digits;
  digits.reserve(32);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isDash = i == 8 || i == 13 || i == 18 || i == 23;
    if (isDash != (text[i] == '-')) return std::nullopt;
    if (!isDash) digits += text[i];
  }
  const auto bytes = hexDecode(digits);
  if (!bytes) return std::nullopt;
  UUID uuid;
  std::copy(bytes->begin(), bytes->end(), uuid.bytes.begin());
  return uuid;
}

std::string UUID::text() const {
  std::string digits = hexEncode(bytes);
  for (char& c : digits) {
    if (c >= 'a') c = static_cast<char>(c - 'a' + 'A');
  }
  for (const std::size_t position : {20, 16, 12, 8}) digits.insert(position, 1, '-');
  return digits;
}

}  // namespace qx
