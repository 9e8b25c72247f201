#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/conduit/Codec.h"

/// The input of the conduit's fuzzer: what a peer sends, as a sequence of parts. A part is a byte
/// of flags, two bytes of size, and that many bytes; the last one may be cut short.
namespace qx::fuzz {

/// The bytes are sent as they are; without it they are what one frame holds.
inline constexpr std::uint8_t rawPart = 0x20;
/// The lower bits: how many descriptors go with the part, up to 31.
inline constexpr std::uint8_t descriptorsOfPart = 0x1f;

inline std::string scriptPart(std::uint8_t flags, std::span<const std::uint8_t> bytes) {
  std::string part{static_cast<char>(flags), static_cast<char>(bytes.size() >> 8U),
                   static_cast<char>(bytes.size())};
  return part.append(bytes.begin(), bytes.end());
}

}  // namespace qx::fuzz
