#pragma once

#include <optional>
#include <span>

namespace qx {

/// Handles the arguments of a daemon, which takes none. "--help" and "--version" are answered on
/// standard output, anything else is refused with one line on standard error. Returns the exit
/// status; absent when there are no arguments, and the daemon is to start. Called in main, before
/// anything else.
std::optional<int> answerOptions(std::span<char* const> arguments, const char* purpose);

}  // namespace qx
