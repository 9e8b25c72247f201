#pragma once

#include <chrono>
#include <string>

#include "docsource/error.h"
#include "platform/base/Value.h"

namespace tool {

/// Has the program of an account find out whether an account with these settings would work
/// (extensions/account/AccountProgram.h). What a person should know of it, mostly nothing; or why
/// it would not. The program does not outlive the timeout.
docsource::Result<std::string> tryAccount(const std::string& program,
                                          const qx::Dictionary& settings,
                                          std::chrono::milliseconds timeout);

}  // namespace tool
