// The commands about the content of documents: how they are, bringing content in, giving it back,
// keeping it. Any provider's documents are known by their marks; the process of an account says
// more about its own.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>

#include "docsource/placeholder.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Desktop.h"
#include "tools/docsource/Interruption.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"
#include "tools/docsource/ProgressBar.h"

namespace tool {
namespace {

namespace fs = std::filesystem;
using docsource::Error;
using docsource::PlaceholderState;
using docsource::Result;

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

/// Says what became of several subjects, and how it ends with the worst of them.
class Outcome {
 public:
  explicit Outcome(const Arguments& arguments) : arguments_(arguments) {}
  void failed(const Error& error) {
    const bool isGivenUp = error.is(docsource::posixErrorDomain, EINTR);
    const int status = isGivenUp ? interrupted : fail(arguments_, error);
    worst_ = std::max(worst_, status);
    if (!isGivenUp) sentences_ += inFamiliarWords(error.description()) + "\n";
  }
  bool hasFailed() const { return worst_ != success; }
  int end(int printed) const {
    if (arguments_.notify && !sentences_.empty()) desktop::notify("DocSource", sentences_);
    return worst_ == success ? printed : worst_;
  }

 private:
  const Arguments& arguments_;
  int worst_ = success;
  std::string sentences_;
};

/// The path and, for a directory, what is in it: right in it, or below it as well; directories only
/// where they are wanted. Hidden files that change places with documents are left out.
Result<std::vector<std::string>> itemsAt(const std::string& path, bool recursive,
                                         bool withDirectories) {
  std::error_code failed;
  if (!fs::is_directory(fs::symlink_status(path, failed))) return std::vector{path};
  std::vector<std::string> items;
  if (withDirectories) items.push_back(path);
  for (fs::recursive_directory_iterator entry(path, failed), end; !failed && entry != end;
       entry.increment(failed)) {
    const bool isDirectory = entry->is_directory(failed) && !entry->is_symlink(failed);
    if (isDirectory && !recursive) entry.disable_recursion_pending();
    const auto name = entry->path().filename().string();
    if ((withDirectories || !isDirectory) && !name.starts_with(docsource::Placeholder::sideName)) {
      items.push_back(entry->path());
    }
  }
  if (failed) return Error::file(failed.value(), path);
  std::sort(items.begin(), items.end());
  return items;
}

/// What an account says of its items, in their order.
Result<qx::Array> statusOf(const Account& account, const std::vector<std::string>& paths,
                           const Arguments& arguments) {
  auto process = AccountProcess::of(account);
  if (!process) return process.error();
  constexpr std::size_t atATime = 1000;
  qx::Array all;
  while (all.size() < paths.size()) {
    qx::Array urls;
    for (std::size_t i = all.size(); i < paths.size() && urls.size() < atATime; ++i) {
      urls.emplace_back(qx::URL::fileURL(paths[i]));
    }
    const auto asked = urls.size();
    const auto answer = process->ask<qx::Array>(
        [&](DSAccount& each, auto completion) {
          each.statusOfItemsAtURLs_completion(urls, std::move(completion));
        },
        arguments.timeout);
    if (!answer) return answer.error();
    auto items = std::get<0>(*answer).value_or(qx::Array());
    items.resize(asked);
    std::move(items.begin(), items.end(), std::back_inserter(all));
  }
  return all;
}

/// One line of `status`.
struct Line {
  std::string path;
  /// As a person knows it.
  std::string shown;
  std::string state;
  std::optional<std::string> reason;
  std::optional<bool> isPinned;
  std::uint64_t size = 0;
  std::uint64_t occupied = 0;
};

Result<Line> lineByMarks(const std::string& path) {
  const auto document = docsource::placeholderStatus(path);
  if (!document) return document.error();
  return Line{path, path, nameOf(document->state), {}, {}, document->size, document->occupied};
}

/// `said` is what the account says.
Result<Line> lineByAccount(const std::string& path, const qx::Value& said) {
  const auto* item = said.as<qx::Dictionary>();
  if (const auto* error = item ? qx::find<qx::Error>(*item, "error") : nullptr) {
    return docsource::bridge::fromPlatform(*error);
  }
  struct stat status {};
  const auto* state = item ? qx::find<std::string>(*item, "state") : nullptr;
  if (!state || ::lstat(path.c_str(), &status) != 0) return Error::file(ENOENT, path);
  Line line{path,
            path,
            *state,
            {},
            false,
            static_cast<std::uint64_t>(status.st_size),
            static_cast<std::uint64_t>(status.st_blocks) * 512};
  if (const auto* reason = qx::find<std::string>(*item, "reason")) line.reason = *reason;
  if (const auto* pinned = qx::find<bool>(*item, "isPinned")) line.isPinned = *pinned;
  return line;
}

/// The account's word, where it runs, and otherwise what the marks say.
void addLines(const Place& place, const Arguments& arguments, std::vector<Line>& lines,
              Outcome& outcome) {
  // An account tells of a directory what of it could not be brought here.
  const auto items = arguments.directory
                         ? Result<std::vector<std::string>>({place.path})
                         : itemsAt(place.path, arguments.recursive, place.account.has_value());
  if (!items) return outcome.failed(items.error());
  std::optional<qx::Array> said;
  if (place.account) {
    auto answer = statusOf(*place.account, *items, arguments);
    if (answer) {
      said = *std::move(answer);
    } else {
      outcome.failed(answer.error());
    }
  }
  for (std::size_t i = 0; i < items->size(); ++i) {
    auto line = said ? lineByAccount((*items)[i], (*said)[i]) : lineByMarks((*items)[i]);
    std::error_code failed;
    const bool isDirectory = fs::is_directory(fs::symlink_status((*items)[i], failed));
    if (isDirectory && !arguments.directory && !(line && line->state == "failed")) continue;
    if (line) {
      if (place.account) line->shown = familiarPath(*place.account, line->path);
      lines.push_back(*std::move(line));
    } else if (items->size() == 1) {
      outcome.failed(line.error());
    }
  }
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

Error keeps(const std::string& path, const std::string& reason) {
  return complaint(path + " keeps its space, as " + reason);
}

/// Has one document of a provider that is no account given back.
Result<void> evictDocument(const std::string& path, const Arguments& arguments) {
  docsource::Client client(arguments.timeout);
  const auto provider = providerOf(client, docsource::fileURL(path));
  if (!provider) return provider.error();
  if (!*provider) return complaint(path + " belongs to no provider");
  auto stopped = client.stopProviding(docsource::fileURL(path), **provider, ownIdentifier);
  if (!stopped) return stopped;
  const auto after = docsource::placeholderStatus(path);
  if (!after) return after.error();
  if (after->state == PlaceholderState::providing) return keeps(path, "it is being provided");
  if (after->state == PlaceholderState::present && after->occupied > 0) {
    return keeps(path, reasonToKeep(path));
  }
  return {};
}

std::uint64_t occupiedBy(const std::vector<std::string>& paths) {
  std::uint64_t sum = 0;
  for (const auto& path : paths) {
    const auto status = docsource::placeholderStatus(path);
    if (status) sum += status->occupied;
  }
  return sum;
}

using ItemOperation = void (DSAccount::*)(const std::optional<qx::URL>&, qx::Completion<qx::Error>);

Result<void> askAccount(const Place& place, ItemOperation operation, const Arguments& arguments,
                        std::optional<std::chrono::milliseconds> timeout) {
  auto process = AccountProcess::of(*place.account);
  if (!process) return process.error();
  auto observer = AccountProcess::of(*place.account);
  ProgressBar bar;
  const Interruption interruption;
  const auto draw = [&] {
    if (interruption.hasCome()) return false;
    if (!bar.isShown() || !observer) return true;
    const auto moved = observer->moved(place.path, arguments.timeout);
    if (moved) bar.draw(moved->done, moved->total);
    return true;
  };
  const auto answer = process->ask<>(
      [&](DSAccount& each, auto completion) {
        (each.*operation)(qx::URL::fileURL(place.path), std::move(completion));
      },
      timeout, draw);
  bar.remove();
  if (!answer && interruption.hasCome()) {
    if (operation == &DSAccount::provideItemAtURL_completion)
      tellWhatGoesOn(familiarPath(*place.account, place.path));
    return Error::posix(EINTR, place.path);
  }
  return answer ? Result<void>() : answer.error();
}

/// For every subject: the account's operation, or for documents of other providers, one by one,
/// `otherwise`.
template <class Otherwise>
int forEach(const Arguments& arguments, ItemOperation operation, bool takesLong,
            const Otherwise& otherwise, bool tellsSpace = false) {
  Outcome outcome(arguments);
  qx::Array array;
  std::uint64_t before = 0, after = 0;
  for (const auto& subject : withAllAccounts(arguments.subjects)) {
    auto place = placeOf(subject);
    // It is what a link leads to that has content.
    std::error_code leadsNowhere;
    const auto document = place && fs::is_symlink(fs::symlink_status(place->path, leadsNowhere))
                              ? fs::canonical(place->path, leadsNowhere)
                              : fs::path();
    if (!document.empty() && !leadsNowhere) place = placeOf(document);
    if (!place) {
      outcome.failed(place.error());
      continue;
    }
    const auto items = itemsAt(place->path, true, false);
    if (!items) {
      outcome.failed(items.error());
      continue;
    }
    if (tellsSpace) before += occupiedBy(*items);
    if (place->account) {
      const auto timeout = takesLong ? arguments.givenTimeout : std::optional(arguments.timeout);
      const auto done = askAccount(*place, operation, arguments, timeout);
      if (!done) outcome.failed(done.error());
    } else {
      for (const auto& path : *items) {
        const Result<void> done = otherwise(path);
        if (!done) outcome.failed(done.error());
      }
    }
    if (tellsSpace) after += occupiedBy(*items);
    array.emplace_back(place->path);
  }
  const auto freed = before > after ? before - after : 0;
  qx::Dictionary object{{"paths", std::move(array)}};
  if (tellsSpace) {
    object = {{"freed", static_cast<std::int64_t>(freed)},
              {"occupied", static_cast<std::int64_t>(after)}};
  }
  // Of nothing but failures there is nothing to say beside them.
  const bool isWorthSaying = tellsSpace && (freed > 0 || !outcome.hasFailed());
  return outcome.end(
      answer(arguments.json, object, isWorthSaying ? sizeText(freed) + " given back\n" : ""));
}

Result<void> belongsToNoAccount(const std::string& path) {
  return complaint(path + " belongs to no account, and only those keep documents");
}

}  // namespace

int status(const Arguments& arguments) {
  Outcome outcome(arguments);
  std::vector<Line> lines;
  for (const auto& subject : withAllAccounts(arguments.subjects)) {
    const auto place = placeOf(subject);
    if (place) {
      addLines(*place, arguments, lines, outcome);
    } else {
      outcome.failed(place.error());
    }
  }
  qx::Array array;
  std::vector<std::string> headings{"STATE", "SIZE", "OCCUPIED", "DOCUMENT"};
  const bool hasReasons = std::any_of(lines.begin(), lines.end(),
                                      [](const Line& line) { return line.reason.has_value(); });
  if (hasReasons) headings.emplace_back("REASON");
  std::vector<std::vector<std::string>> rows;
  for (const auto& line : lines) {
    qx::Dictionary object{{"path", line.path},
                          {"state", line.state},
                          {"size", static_cast<std::int64_t>(line.size)},
                          {"occupied", static_cast<std::int64_t>(line.occupied)}};
    if (line.reason) object["reason"] = *line.reason;
    if (line.isPinned) object["pinned"] = *line.isPinned;
    array.emplace_back(std::move(object));
    rows.push_back({line.state + (line.isPinned == true ? " (pinned)" : ""),
                    std::to_string(line.size), std::to_string(line.occupied), line.shown});
    if (hasReasons) rows.back().push_back(line.reason.value_or(""));
  }
  const auto text = !rows.empty()         ? table(headings, rows)
                    : outcome.hasFailed() ? ""
                                          : "There are no documents.\n";
  return outcome.end(answer(arguments.json, {{"documents", std::move(array)}}, text));
}

int get(const Arguments& arguments) {
  docsource::Client client(arguments.givenTimeout.value_or(docsource::Client::noTimeout));
  return forEach(arguments, &DSAccount::provideItemAtURL_completion, true,
                 [&](const std::string& path) -> Result<void> {
                   auto read = client.coordinateReading(docsource::fileURL(path));
                   if (!read) return read;
                   const auto after = docsource::placeholderStatus(path);
                   if (!after) return after.error();
                   if (after->state == PlaceholderState::present) return {};
                   return complaint(path + " is a placeholder still");
                 });
}

int evict(const Arguments& arguments) {
  return forEach(
      arguments, &DSAccount::evictItemAtURL_completion, true,
      [&](const std::string& path) { return evictDocument(path, arguments); }, true);
}

int pin(const Arguments& arguments) {
  return forEach(arguments, &DSAccount::pinItemAtURL_completion, false, belongsToNoAccount);
}

int unpin(const Arguments& arguments) {
  return forEach(arguments, &DSAccount::unpinItemAtURL_completion, false, belongsToNoAccount);
}

}  // namespace tool
