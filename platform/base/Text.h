#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

/// Whether the bytes are valid UTF-8 (RFC 3629: no surrogates, no overlong forms).
bool isValidUTF8(std::string_view text);

/// Lower-case hexadecimal.
std::string hexEncode(std::span<const std::uint8_t> bytes);
std::optional<std::vector<std::uint8_t>> hexDecode(std::string_view text);
/// Returns the value of two hexadecimal digits.
std::optional<std::uint8_t> hexByte(std::string_view digits);

/// Base64 with padding (RFC 4648); the decoder skips white space and refuses everything else.
std::string base64Encode(std::span<const std::uint8_t> bytes);
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace qx
