// The commands about the space that documents take: what they occupy, and giving it back.

#include <fcntl.h>

#include <cstdio>

#include "docsource/placeholder.h"
#include "platform/files/FileManager.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

using docsource::PlaceholderState;
using docsource::PlaceholderStatus;

/// In whose name a document is given back; the broker wants to know, the provider is not told.
constexpr const char* ownIdentifier = "com.veltro.docsource.tool";

const char* nameOf(PlaceholderState state) {
  switch (state) {
    case PlaceholderState::placeholder:
      return "placeholder";
    case PlaceholderState::providing:
      return "providing";
    case PlaceholderState::present:
      return "present";
  }
  return "";
}

int refuse(const std::string& text) {
  std::fprintf(stderr, "%s\n", onOneLine(text).c_str());
  return operationFailed;
}

/// The path as a person gave it: a file URL, or a path.
docsource::Result<std::string> pathFromArgument(const std::string& argument) {
  const auto url = urlFromArgument(argument);
  if (auto path = docsource::pathOfURL(url)) return *std::move(path);
  return docsource::Error(docsource::LibraryError::notAFileURL, "This is no file URL.",
                          {{"URL", url}});
}

/// The provider in whose directory the document is.
docsource::Result<std::optional<std::string>> providerOf(docsource::Client& client,
                                                         const std::string& path) {
  const auto listing = client.providers();
  if (!listing) return listing.error();
  for (const auto& provider : *listing) {
    if (!provider.documentStorageURL) continue;
    const auto relation = qx::FileManager::getRelationship_ofDirectoryAtURL_toItemAtURL(
        qx::URL(*provider.documentStorageURL), qx::URL::fileURL(path));
    if (relation && *relation == qx::DirectoryRelationship::contains) {
      return std::optional(provider.identifier);
    }
  }
  return std::optional<std::string>();
}

/// Why a provider that answered with success kept the content, as far as can be seen from here.
std::string reasonToKeep(const std::string& path) {
  const docsource::Descriptor file(
      ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (file) {
    const auto inUse = docsource::isFileInUse(file.get());
    if (inUse && *inUse) return "some program has it open or mapped";
  }
  return "it was changed, or its provider keeps it";
}

}  // namespace

int status(const Arguments& arguments) {
  qx::Array array;
  std::vector<std::vector<std::string>> rows;
  int outcome = success;
  for (const auto& argument : arguments.subjects) {
    const auto path = pathFromArgument(argument);
    const auto document = path ? docsource::placeholderStatus(*path)
                               : docsource::Result<PlaceholderStatus>(path.error());
    if (!document) {
      outcome = fail(arguments, document.error());
      continue;
    }
    const std::string state = nameOf(document->state);
    array.emplace_back(qx::Dictionary{{"path", *path},
                                      {"state", state},
                                      {"size", static_cast<std::int64_t>(document->size)},
                                      {"occupied", static_cast<std::int64_t>(document->occupied)}});
    rows.push_back({state, std::to_string(document->size),
                    std::to_string(document->occupied), *path});
  }
  const int printed = answer(arguments.json, {{"documents", std::move(array)}},
                             table({"STATE", "SIZE", "OCCUPIED", "DOCUMENT"}, rows));
  return outcome == success ? printed : outcome;
}

int evict(const Arguments& arguments) {
  const auto path = pathFromArgument(arguments.subject);
  if (!path) return fail(arguments, path.error());
  const auto before = docsource::placeholderStatus(*path);
  if (!before) return fail(arguments, before.error());
  docsource::Client client(arguments.timeout);
  const auto provider = providerOf(client, *path);
  if (!provider) return fail(arguments, provider.error());
  if (!*provider) return refuse(*path + " belongs to no provider.");
  const auto stopped = client.stopProviding(docsource::fileURL(*path), **provider, ownIdentifier);
  if (!stopped) return fail(arguments, stopped.error());

  const auto after = docsource::placeholderStatus(*path);
  if (!after) return fail(arguments, after.error());
  if (after->state == PlaceholderState::providing) {
    return refuse("The document keeps its space: it is being provided.");
  }
  if (after->state == PlaceholderState::present && after->occupied > 0) {
    return refuse("The document keeps its space: " + reasonToKeep(*path) + ".");
  }
  const std::uint64_t freed =
      before->occupied > after->occupied ? before->occupied - after->occupied : 0;
  return answer(arguments.json,
                {{"freed", static_cast<std::int64_t>(freed)},
                 {"occupied", static_cast<std::int64_t>(after->occupied)}},
                sizeText(freed) + " given back\n");
}

}  // namespace tool
