#pragma once

#include <string>
#include <vector>

#include "docsource/error.h"
#include "extensions/account/Settings.h"
#include "extensions/http/HTTP.h"

namespace docsource::http {

/// How the settings of an account say that its server is reached.
ConnectionOptions connectionFrom(const account::Settings& setting);

/// The lines of the secret that the settings name, at least one; absent where they name none. Asks
/// at each call.
std::function<Result<std::vector<std::string>>()> secretFrom(const account::Settings& setting);

/// The lines that `command` prints, run by the shell. Its error messages go where those of this
/// process go; what it prints does not.
Result<std::vector<std::string>> secretFromCommand(const std::string& command);
/// The lines of a file that nobody but its owner may read or write.
Result<std::vector<std::string>> secretFromFile(const std::string& path);

}  // namespace docsource::http
