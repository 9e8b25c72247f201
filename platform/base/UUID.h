#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

/// A universally unique identifier (RFC 4122), 16 bytes.
struct UUID {
  std::array<std::uint8_t, 16> bytes{};

  /// Makes a new random one (version 4).
  static UUID random();
  /// Reads the 8-4-4-4-12 form, in either case; absent for anything else.
  static std::optional<UUID> parse(std::string_view text);
  /// The 8-4-4-4-12 form in upper case.
  std::string text() const;

  friend auto operator<=>(const UUID&, const UUID&) = default;
};

}  // namespace qx
