#pragma once

#include <functional>
#include <string>

#include "extensions/account/AccountProvider.h"

namespace account {

/// Calls `show` once with the address of the page, and waits until somebody has agreed there.
using LogIn = std::function<docsource::Result<Login>(
    const Settings& setting, const std::function<void(const std::string& page)>& show)>;

/// The main function of an account's program; returns its exit status.
///
/// Without arguments it is the account's process. With "--try" it finds out for the tool whether an
/// account with certain settings would work, and leaves nothing behind: the settings come as a
/// property list, a dictionary of strings, from standard input. Status 0: it would, and each line
/// printed is something for a person to know. Status 1: the line printed says why not.
///
/// With "--login", and settings in the same way, somebody logs in: the page's address is printed
/// first, then address, user and password of the account, a line each. Status 1 as above.
int runProgram(int argc, char** argv, const AccountProvider::MakeRemote& makeRemote,
               const LogIn& logIn = {});

}  // namespace account
