#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace qx {

/// Returns a number that bubblewrap tells about a sandbox (--info-fd, bwrap(1)): "child-pid", its
/// first process, or "mnt-namespace", the inode of its mount namespace. Absent where it does not
/// say.
std::optional<std::uint64_t> toldByBubblewrap(std::string_view information, std::string_view name);

}  // namespace qx
