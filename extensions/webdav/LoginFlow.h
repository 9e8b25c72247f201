#pragma once

#include <functional>
#include <string>

#include "docsource/error.h"
#include "extensions/http/HTTP.h"

namespace docsource::webdav {

/// What an account needs to know after somebody has logged in with a browser. The password is one
/// for this account alone, which its user can take back at the server.
struct Login {
  /// Of the user's documents.
  std::string url;
  std::string user;
  std::string password;
};

/// Logs in at a server that announces identifiers (docs/servers.md) by its "login flow v2": `show`
/// is called once with the address of the page on which a person agrees; then it is asked until
/// that is done, for twenty minutes at most. `server` is the address of the installation.
Result<Login> logIn(const std::string& server, http::ConnectionOptions options,
                    const std::function<void(const std::string& page)>& show);

}  // namespace docsource::webdav
