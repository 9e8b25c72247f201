#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qx {

/// Writes a path in characters that need no quoting anywhere; all others are percent-encoded (RFC
/// 3986). The files and tokens of the sandbox extensions hold paths like this.
std::string encodedPath(std::string_view path);
/// Reads such a text; absent for any other.
std::optional<std::string> decodedPath(std::string_view text);

/// Returns the path of an entry with all links in its directory resolved; absent when the directory
/// does not exist, or the path names no entry of one. The entry itself may be missing, or a link.
std::optional<std::string> canonicalEntryPath(const std::string& path);

}  // namespace qx
