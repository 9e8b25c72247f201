#pragma once

#include "extensions/account/AccountProvider.h"

namespace account {

/// The main function of an account's program; returns its exit status.
///
/// Without arguments it is the account's process. With "--try" it finds out for the tool whether an
/// account with certain settings would work, and leaves nothing behind: the settings come as a
/// property list, a dictionary of strings, from standard input. Status 0: it would, and each line
/// printed is something for a person to know. Status 1: the line printed says why not.
int runProgram(int argc, char** argv, const AccountProvider::MakeRemote& makeRemote);

}  // namespace account
