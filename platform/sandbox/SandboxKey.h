#pragma once

#include <sodium.h>

#include <array>
#include <cstdint>
#include <optional>

namespace qx {

using SandboxKey = std::array<std::uint8_t, crypto_auth_KEYBYTES>;

/// The key of this boot, from the file "sandbox.key" in the runtime directory. Absent when there is
/// none, and, with a line in the log, when the file is not what it must be: a regular file of
/// exactly the key's size that nobody but its owner can read, owned by this user or, for root, by
/// the owner of the runtime directory.
std::optional<SandboxKey> readSandboxKey();

/// The same, but a missing key is made. Processes that make one at the same time agree.
std::optional<SandboxKey> readOrMakeSandboxKey();

}  // namespace qx
