#pragma once

#include <functional>
#include <string>

#include "docsource/error.h"
#include "extensions/account/Settings.h"
#include "extensions/http/HTTP.h"

namespace docsource::webdav {

/// Logs in at a server that announces identifiers (docs/servers.md) by its "login flow v2": `show`
/// is called once with the address of the page on which a person agrees; then it is asked until
/// that is done, for twenty minutes at most. The password is one for this account alone, which its
/// user can take back at the server. `server` is the address of the installation, or any below its
/// "remote.php".
Result<account::Login> logIn(const std::string& server, http::ConnectionOptions options,
                             const std::function<void(const std::string& page)>& show);

}  // namespace docsource::webdav
