#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "docsource/client.h"

namespace tool {

/// The URL that a person means: a URL as it stands, anything else as a path, from the current
/// directory when it is relative. A path that leads to a file through symbolic links, one in its
/// last place included, means that file: links are no documents. Of another path "." and doubled
/// separators go, ".." stays, since it may follow a link.
std::string urlFromArgument(std::string_view argument);

/// The absolute path that a person means by a path.
std::string absolutePath(std::string_view path);

/// Where PATH leads to a program of that name.
std::optional<std::string> programCalled(const std::string& name);

/// The identifier of the provider in whose directory the document at a URL is; absent for one of
/// nobody's.
docsource::Result<std::optional<std::string>> providerOf(docsource::Client& client,
                                                         const std::string& url);

/// The path of a file URL for a person to read, the URL itself where it has none.
std::string readable(const std::string& url);

}  // namespace tool
