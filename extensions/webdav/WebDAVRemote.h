#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "docsource/remote.h"
#include "extensions/account/Settings.h"
#include "extensions/http/HTTP.h"

/// Documents on a WebDAV server (RFC 4918).
namespace docsource::webdav {

struct WebDAVOptions {
  /// The account's top: http or https, without user, password, query or fragment.
  std::string url;
  http::ConnectionOptions connection;
  /// Larger documents go to a server that takes parts in parts of this size, in bytes; one part for
  /// each upload under way is held in memory. Such servers want 5 MB at least.
  std::uint64_t partSize = std::uint64_t{10} << 20U;
};

/// An error when the URL is none that can be used. Nothing is asked before the first operation;
/// what the remote is capable of is known when identity() has succeeded.
Result<std::unique_ptr<Remote>> makeWebDAVRemote(WebDAVOptions options);
Result<std::unique_ptr<Remote>> makeWebDAVRemote(const account::Settings& setting);

}  // namespace docsource::webdav
