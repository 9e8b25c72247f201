#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "docsource/error.h"
#include "extensions/account/Settings.h"
#include "platform/base/Value.h"

namespace tool {

/// Has the program of an account find out whether an account with these settings would work
/// (extensions/account/AccountProgram.h). What a person should know of it, mostly nothing; or why
/// it would not. The program does not outlive the timeout.
docsource::Result<std::string> tryAccount(const std::string& program,
                                          const qx::Dictionary& settings,
                                          std::chrono::milliseconds timeout);

/// Has it log in at the server of these settings: `show` is called with the address of the page on
/// which a person agrees, and that is waited for, half an hour at most.
docsource::Result<account::Login> logIn(const std::string& program, const qx::Dictionary& settings,
                                        const std::function<void(const std::string& page)>& show);

}  // namespace tool
