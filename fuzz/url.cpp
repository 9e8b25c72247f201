// URLs, how what they name lies to a directory, and the hidden sibling. The first byte says whether
// the rest is a URL, a path, or what follows the URL of a directory.

#include "platform/base/URL.h"
#include "fuzz/Fuzz.h"
#include "fuzz/Tree.h"
#include "platform/files/FileManager.h"
#include "platform/sandbox/Sandbox.h"
#include "servicer/DSConduitServicer.h"

using namespace qx;
using fuzz::require;
using fuzz::Tree;

namespace {

namespace fs = std::filesystem;

void checkPath(const std::string& path) {
  if (path.find('\0') != std::string::npos) return;
  const auto url = URL::fileURL(path);
  require(URL::parse(url.absoluteString()) == url, "the URL of a path is a URL");
  require(url.path() == path, "the URL of a path has that path");
}

void checkComponent(const URL& url, const std::string& component) {
  const auto path = url.path();
  if (!path || component.find('\0') != std::string::npos) return;
  const auto entry = url.URLByAppendingPathComponent_isDirectory(component, false).path();
  const std::string_view text = url.absoluteString();
  const bool isClosed = text.substr(0, text.find_first_of("?#")).ends_with('/');
  require(entry == *path + (isClosed ? "" : "/") + component, "an entry is in its directory");
}

/// Whether ".." follows a name that is no directory. What that means is a matter of taste: here the
/// name is taken back and what follows is looked up, the standard library only takes it back.
bool leavesTheMissing(const fs::path& path) {
  fs::path prefix;
  bool isMissing = false;
  std::error_code ignored;
  for (const auto& component : path) {
    prefix /= component;
    if (isMissing && component == "..") return true;
    isMissing = isMissing || !fs::is_directory(prefix, ignored);
  }
  return false;
}

/// The same question to the standard library, for a tree in which no link leads to nothing.
void checkRelationship(const URL& url) {
  const auto path = url.path();
  const auto directory = URL::fileURL(Tree::inside());
  const auto relationship =
      FileManager::getRelationship_ofDirectoryAtURL_toItemAtURL(directory, url);
  if (!relationship) return;
  require(path.has_value(), "only a path lies to a directory");
  if (leavesTheMissing(*path)) return;
  std::error_code failed;
  auto resolved = fs::weakly_canonical(*path, failed).string();
  if (failed) return;
  while (resolved.size() > 1 && resolved.ends_with('/')) resolved.pop_back();
  const auto expected = resolved == Tree::inside() ? DirectoryRelationship::same
                        : resolved.starts_with(Tree::inside() + "/")
                            ? DirectoryRelationship::contains
                            : DirectoryRelationship::other;
  require(*relationship == expected, "an item lies where its path leads");
}

/// Whether the token opens that file; a token for a directory opens nothing.
bool opens(const std::optional<Bytes>& token, const fs::path& path) {
  const auto file = consumeSandboxExtension(fuzz::textOf(*token));
  if (!file) return fs::is_directory(path);
  return fs::read_symlink("/proc/self/fd/" + std::to_string(file->get())) == path;
}

/// The tokens that a client gets for a URL open the file that it names and the hidden sibling in
/// the same directory, and nothing else.
void checkTokens(const URL& url) {
  std::optional<Bytes> token;
  std::optional<URL> sibling;
  std::optional<Bytes> siblingToken;
  issueSandboxExtensionsForURL(url, &token, &sibling, &siblingToken, nullptr);
  require(sibling == hiddenSiblingURLForURL(url), "the sibling is handed over");
  const auto path = url.path();
  if (token) {
    require(path && opens(token, fs::canonical(*path)), "a token opens what the URL names");
  }
  if (siblingToken) {
    require(path.has_value(), "there is no sibling beside nothing");
    std::string name = *path;
    while (name.ends_with('/')) name.pop_back();
    const fs::path document(name);
    require(opens(siblingToken,
                  fs::canonical(document.parent_path()) / ("." + document.filename().string())),
            "a sibling's token opens the hidden file beside the document");
  }
}

void check(const URL& url) {
  if (const auto path = url.path()) {
    require(path->starts_with('/') && path->find('\0') == std::string::npos,
            "a path is one that the file system can carry");
    require(URL::fileURL(*path, path->ends_with('/')).path() == path, "a path survives its URL");
  }
  checkComponent(url, "a b%2F");
  checkRelationship(url);
  const auto sibling = hiddenSiblingURLForURL(url);
  require(!sibling || *sibling != url, "a sibling is another file");
  checkTokens(url);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto& tree = *[] {
    fuzz::muteLog();
    return new Tree;
  }();
  (void)tree;
  fuzz::Input input(data, size);
  const std::uint8_t form = input.byte();
  const std::string text(fuzz::textOf(input.rest()));
  switch (form % 4) {
    case 0:
      if (const auto url = URL::parse(text)) {
        require(url->absoluteString() == text, "a URL keeps its text");
        check(*url);
      }
      break;
    case 1:
      checkPath("/" + text);
      checkPath(Tree::inside() + "/" + text);
      checkComponent(URL::fileURL("/a", (form & 4U) != 0), text);
      check(URL::fileURL(Tree::inside() + "/" + text));
      break;
    default: {
      const auto url = URL::parse("file://" + Tree::inside() + "/" + text);
      if (url) check(*url);
      break;
    }
  }
  return 0;
}
