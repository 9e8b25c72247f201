#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qx {

/// A path in letters that take no quoting anywhere, others percent-encoded (RFC 3986); the files
/// and tokens of the sandbox extensions hold paths like this.
std::string encodedPath(std::string_view path);
/// Absent for what is no such text.
std::optional<std::string> decodedPath(std::string_view text);

/// The path of an entry with all links in its directory resolved; absent when the directory is not
/// there, or the path names no entry of one. Whether the entry itself is there, or is a link, is
/// not looked at.
std::optional<std::string> canonicalEntryPath(const std::string& path);

}  // namespace qx
