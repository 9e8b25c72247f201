#pragma once

#include <optional>
#include <span>

namespace qx {

/// What a daemon does about its arguments, of which it takes none: "--help" and "--version" are
/// answered on standard output, anything else is refused with one line on standard error. The exit
/// status; absent when there are no arguments, and the daemon is to start. For main, before
/// anything else.
std::optional<int> answerOptions(std::span<char* const> arguments, const char* purpose);

}  // namespace qx
