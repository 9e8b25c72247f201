// The commands about what goes on between an account and its remote, and about documents that were
// changed on both sides.

#include <cstdio>
#include <ctime>
#include <filesystem>

#include "tools/docsource/Accounts.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

using docsource::Error;
using docsource::Result;

using ListOperation = void (DSAccount::*)(qx::Completion<qx::Error, qx::Array>);

/// What all accounts that run answer. Those that do not run have neither transfers nor conflicts
/// that anybody could settle, and are told of.
int forEachEntry(const Arguments& arguments, ListOperation operation,
                 const std::function<void(const Account&, const qx::Dictionary&)>& visit) {
  int outcome = success;
  for (const auto& account : installedAccounts()) {
    auto process = AccountProcess::of(account);
    using Lists = Result<std::tuple<std::optional<qx::Array>>>;
    const auto list = process ? process->ask<qx::Array>(
                                    [&](DSAccount& each, auto completion) {
                                      (each.*operation)(std::move(completion));
                                    },
                                    arguments.timeout)
                              : Lists(process.error());
    if (!list) {
      outcome = fail(arguments, list.error());
      continue;
    }
    for (const auto& value : std::get<0>(*list).value_or(qx::Array())) {
      if (const auto* entry = value.as<qx::Dictionary>()) visit(account, *entry);
    }
  }
  return outcome;
}

std::string pathIn(const qx::Dictionary& entry, const char* key) {
  const auto* url = qx::find<qx::URL>(entry, key);
  return url ? url->path().value_or("") : "";
}
std::int64_t numberIn(const qx::Dictionary& entry, const char* key) {
  const auto* number = qx::find<std::int64_t>(entry, key);
  return number ? *number : 0;
}

/// As a word of a shell.
std::string quoted(const std::string& text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

Result<void> ask(const Place& place, const Arguments& arguments,
                 void (DSAccount::*operation)(const std::optional<qx::URL>&,
                                              qx::Completion<qx::Error>)) {
  if (!place.account) return complaint(place.path + " belongs to no account");
  auto process = AccountProcess::of(*place.account);
  if (!process) return process.error();
  const auto answer = process->ask<>(
      [&](DSAccount& each, auto completion) {
        (each.*operation)(qx::URL::fileURL(place.path), std::move(completion));
      },
      arguments.timeout);
  return answer ? Result<void>() : answer.error();
}

/// The remote's version stays when ours is removed; ours takes its place when the account is told.
Result<void> take(const std::string& argument, const Arguments& arguments) {
  const auto place = placeOf(argument);
  if (!place) return place.error();
  std::vector<std::string> others;
  bool isCopy = false;
  forEachEntry(arguments, &DSAccount::conflictsCompletion,
               [&](const Account&, const qx::Dictionary& entry) {
                 if (pathIn(entry, "copyURL") == place->path) isCopy = true;
                 if (pathIn(entry, "URL") == place->path) {
                   others.push_back(pathIn(entry, "copyURL"));
                 }
               });
  if (isCopy) return ask(*place, arguments, &DSAccount::takeConflictCopyAtURL_completion);
  if (others.empty()) {
    return complaint(place->path + " has no conflict (docsource conflicts lists them)");
  }
  for (const auto& path : others) {
    std::error_code failed;
    std::filesystem::remove(path, failed);
    if (failed) return Error::file(failed.value(), path);
  }
  return {};
}

}  // namespace

int transfers(const Arguments& arguments) {
  qx::Array array;
  std::vector<std::vector<std::string>> rows;
  const int outcome = forEachEntry(
      arguments, &DSAccount::transfersCompletion,
      [&](const Account& account, const qx::Dictionary& entry) {
        const auto done = numberIn(entry, "done"), total = numberIn(entry, "total");
        const auto* isUpload = qx::find<bool>(entry, "isUpload");
        const std::string direction = isUpload && *isUpload ? "up" : "down";
        const auto path = pathIn(entry, "URL");
        array.emplace_back(qx::Dictionary{{"account", account.name},
                                          {"direction", direction},
                                          {"done", done},
                                          {"total", total},
                                          {"path", path}});
        rows.push_back({direction, std::to_string(total > 0 ? 100 * done / total : 0) + "%",
                        sizeText(static_cast<std::uint64_t>(done)),
                        sizeText(static_cast<std::uint64_t>(total)), familiarPath(account, path)});
      });
  const int printed =
      answer(arguments.json, {{"transfers", std::move(array)}},
             rows.empty() ? "Nothing is under way.\n"
                          : table({"DIRECTION", "DONE", "BYTES", "OF", "DOCUMENT"}, rows));
  return outcome == success ? printed : outcome;
}

int cancel(const Arguments& arguments) {
  const auto place = placeOf(arguments.subject);
  if (!place) return fail(arguments, place.error());
  const auto done = ask(*place, arguments, &DSAccount::cancelTransferOfItemAtURL_completion);
  if (!done) return fail(arguments, done.error());
  return answer(arguments.json, {{"path", place->path}}, "");
}

int conflicts(const Arguments& arguments) {
  if (arguments.take) {
    const auto taken = take(*arguments.take, arguments);
    if (!taken) return fail(arguments, taken.error());
    return answer(arguments.json, {{"taken", *arguments.take}}, "");
  }
  qx::Array array;
  std::string text;
  const int outcome = forEachEntry(
      arguments, &DSAccount::conflictsCompletion,
      [&](const Account& account, const qx::Dictionary& entry) {
        const auto theirs = pathIn(entry, "URL"), ours = pathIn(entry, "copyURL");
        const std::time_t since = numberIn(entry, "since");
        std::tm fields{};
        char time[40];
        std::strftime(time, sizeof time, "%Y-%m-%d %H:%M", ::localtime_r(&since, &fields));
        array.emplace_back(qx::Dictionary{{"account", account.name},
                                          {"theirs", theirs},
                                          {"ours", ours},
                                          {"since", numberIn(entry, "since")}});
        text += onOneLine(familiarPath(account, theirs)) + "\n  since " + time + "\n";
        for (const auto& [whose, path] : {std::pair("theirs  ", familiarPath(account, theirs)),
                                          std::pair("ours    ", familiarPath(account, ours))}) {
          text += std::string("  ") + whose + onOneLine(path) +
                  "\n          to take it: docsource " + "conflicts --take " +
                  onOneLine(quoted(path)) + "\n";
        }
      });
  const int printed = answer(arguments.json, {{"conflicts", std::move(array)}},
                             text.empty() ? "There are no conflicts.\n" : text);
  return outcome == success ? printed : outcome;
}

}  // namespace tool
