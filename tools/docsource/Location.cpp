// Where documents are, as people write it.

#include "tools/docsource/Location.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "docsource/error.h"
#include "platform/files/FileManager.h"

namespace tool {
namespace {

/// A scheme (RFC 3986, 3.1) and "//" after it, or the scheme "file" with one slash.
bool isURL(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const auto scheme = text.substr(0, colon);
  const auto isSchemeCharacter = [](unsigned char c) {
    return std::isalnum(c) || c == '+' || c == '-' || c == '.';
  };
  if (!std::isalpha(static_cast<unsigned char>(scheme.front())) ||
      !std::all_of(scheme.begin(), scheme.end(), isSchemeCharacter)) {
    return false;
  }
  const auto rest = text.substr(colon + 1);
  return rest.starts_with("//") || (scheme == "file" && rest.starts_with('/'));
}

}  // namespace

std::optional<std::string> programCalled(const std::string& name) {
  const char* variable = std::getenv("PATH");
  std::string paths = variable ? variable : "/usr/local/bin:/usr/bin:/bin";
  for (std::size_t begin = 0; begin <= paths.size();) {
    const auto end = std::min(paths.find(':', begin), paths.size());
    const auto path = paths.substr(begin, end - begin) + "/" + name;
    if (path.starts_with('/') && ::access(path.c_str(), X_OK) == 0) return path;
    begin = end + 1;
  }
  return std::nullopt;
}

std::string absolutePath(std::string_view path) {
  std::string whole(path);
  if (!path.starts_with('/')) {
    std::error_code failed;
    whole = std::filesystem::current_path(failed).string() + "/" + whole;
  }
  std::string result;
  for (std::size_t begin = 0; begin < whole.size();) {
    const std::size_t end = std::min(whole.find('/', begin), whole.size());
    const auto component = std::string_view(whole).substr(begin, end - begin);
    if (!component.empty() && component != ".") result.append("/").append(component);
    begin = end + 1;
  }
  const bool isDirectory = whole.ends_with('/') || whole.ends_with("/.");
  return isDirectory || result.empty() ? result + "/" : result;
}

std::string urlFromArgument(std::string_view argument) {
  if (isURL(argument)) return std::string(argument);
  const std::string path = absolutePath(argument);
  std::error_code failed;
  const auto document = std::filesystem::canonical(path, failed);
  const bool isThere = !failed && std::filesystem::is_regular_file(document, failed);
  return docsource::fileURL(isThere ? document.string() : path);
}

docsource::Result<std::optional<std::string>> providerOf(docsource::Client& client,
                                                         const std::string& url) {
  const auto listing = client.providers();
  if (!listing) return listing.error();
  for (const auto& provider : *listing) {
    if (!provider.documentStorageURL) continue;
    const auto relation = qx::FileManager::getRelationship_ofDirectoryAtURL_toItemAtURL(
        qx::URL(*provider.documentStorageURL), qx::URL(url));
    if (relation && *relation == qx::DirectoryRelationship::contains) {
      return std::optional(provider.identifier);
    }
  }
  return std::optional<std::string>();
}

std::string readable(const std::string& url) { return docsource::pathOfURL(url).value_or(url); }

}  // namespace tool
