#include "tools/docsource/Accounts.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "platform/conduit/ServiceWatch.h"
#include "platform/files/DirectoryWatch.h"
#include "platform/files/Places.h"
#include "tools/docsource/BundleInstaller.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string homeDirectory() {
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
  const passwd* entry = ::getpwuid(::geteuid());
  return entry ? entry->pw_dir : "/";
}

/// The account in whose storage a resolved path is, the storage itself included.
std::optional<Account> accountOf(const std::string& path) {
  for (auto& each : installedAccounts()) {
    std::error_code failed;
    const auto storage = fs::canonical(each.storage, failed).string();
    if (!failed && (path == storage || path.starts_with(storage + "/"))) return each;
  }
  return std::nullopt;
}

}  // namespace

std::vector<Account> installedAccounts() {
  std::vector<Account> accounts;
  for (const auto& installed :
       installedBundles(qx::BundleKind::extension, qx::BundleStanding::user)) {
    // One whose program cannot be started is an account all the same: it has documents.
    qx::Bundle bundle{};
    bundle.path = installed.path;
    bundle.identifier = installed.identifier();
    bundle.info = installed.info;
    auto found = account::accountOf(bundle);
    if (found) accounts.push_back(*std::move(found));
  }
  std::sort(accounts.begin(), accounts.end(),
            [](const Account& a, const Account& b) { return a.name < b.name; });
  return accounts;
}

docsource::Result<Account> accountCalled(const std::string& name) {
  for (auto& each : installedAccounts()) {
    if (each.name == name) return each;
  }
  return complaint("There is no account \"" + name + "\" (docsource accounts lists them)");
}

std::string linkFor(const std::string& name) { return homeDirectory() + "/DocSource/" + name; }

std::string remedyFor(const Account& account, const std::string& state) {
  const auto command = "docsource sync \"" + account.name + "\"";
  return state == "needs-confirmation" ? "If that is right: " + command + " --confirm-deletions"
                                       : "To try again: " + command;
}

std::vector<std::string> withAllAccounts(const std::vector<std::string>& arguments) {
  std::vector<std::string> all;
  for (const auto& argument : arguments) {
    std::error_code failed;
    if (!fs::equivalent(argument, homeDirectory() + "/DocSource", failed)) {
      all.push_back(argument);
      continue;
    }
    for (const auto& account : installedAccounts()) all.push_back(linkFor(account.name));
  }
  return all;
}

std::string familiarPath(const Account& account, const std::string& path) {
  std::error_code failed;
  const auto link = linkFor(account.name);
  const auto storage = fs::canonical(account.storage, failed).string();
  const bool isBelow = !failed && path.starts_with(storage) &&
                       (path.size() == storage.size() || path[storage.size()] == '/');
  const bool leadsThere = isBelow && fs::canonical(link, failed) == storage && !failed;
  return leadsThere ? link + path.substr(storage.size()) : path;
}

std::string inFamiliarWords(std::string sentence, const std::vector<Account>& accounts) {
  constexpr std::string_view opening = "\"file://";
  for (auto at = sentence.find(opening); at != std::string::npos;
       at = sentence.find(opening, at + 1)) {
    const auto length = std::min(sentence.find('"', at + 1), sentence.size()) - at - 1;
    sentence.replace(at + 1, length, readable(sentence.substr(at + 1, length)));
  }
  for (const auto& account : accounts) {
    std::error_code failed;
    const auto storage = fs::canonical(account.storage, failed).string();
    const auto known = failed ? storage : familiarPath(account, storage);
    if (known == storage) continue;
    for (auto at = sentence.find(storage); at != std::string::npos;
         at = sentence.find(storage, at + known.size())) {
      sentence.replace(at, storage.size(), known);
    }
  }
  return sentence;
}

docsource::Result<Place> placeOf(const std::string& argument) {
  if (argument.empty()) return docsource::Error::file(ENOENT, argument);
  const auto url = urlFromArgument(argument);
  const auto given = docsource::pathOfURL(url);
  if (!given) {
    return docsource::Error(docsource::LibraryError::notAFileURL, "This is no file URL.",
                            {{"URL", url}});
  }
  // Not urlFromArgument's path, which follows a link that is an item itself.
  auto path = docsource::pathOfURL(argument).value_or(absolutePath(argument));
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  std::error_code failed;
  const fs::path name(path);
  const auto item = (fs::canonical(name.parent_path(), failed) / name.filename()).string();
  if (failed || !fs::exists(fs::symlink_status(item, failed))) {
    return docsource::Error::file(ENOENT, path);
  }
  if (auto account = accountOf(item)) return Place{item, std::move(account)};
  const auto whole = fs::canonical(path, failed).string();
  if (failed) return docsource::Error::file(failed.value(), path);
  return Place{whole, accountOf(whole)};
}

void tellWhatGoesOn(const std::string& subject) {
  std::fprintf(stderr,
               "%s goes on arriving. docsource transfers lists it, docsource cancel gives it up.\n",
               onOneLine(subject).c_str());
}

docsource::Result<AccountProcess> AccountProcess::of(const Account& account) {
  auto connection = QXConduitConnection::connectToService(account.identifier);
  if (!connection) {
    return docsource::Error(docsource::LibraryError::serviceUnavailable,
                            "The account \"" + account.name +
                                "\" is not running. It is started by docsourced; is that running?",
                            {}, docsource::bridge::fromPlatform(connection.error()));
  }
  (*connection)->setRemoteObjectInterface(dsAccountInterface());
  (*connection)->resume();
  return AccountProcess(*std::move(connection));
}

docsource::Result<AccountProcess::Moved> AccountProcess::moved(const std::string& path,
                                                               std::chrono::milliseconds timeout) {
  const auto answer = ask<qx::Array>(
      [](DSAccount& each, auto completion) { each.transfersCompletion(std::move(completion)); },
      timeout);
  if (!answer) return answer.error();
  Moved moved;
  for (const auto& value : std::get<0>(*answer).value_or(qx::Array())) {
    const auto* transfer = value.as<qx::Dictionary>();
    const auto* url = transfer ? qx::find<qx::URL>(*transfer, "URL") : nullptr;
    const auto of = url ? url->path() : std::nullopt;
    if (!of || (*of != path && !of->starts_with(path + "/"))) continue;
    if (const auto* bytes = qx::find<std::int64_t>(*transfer, "done")) moved.done += *bytes;
    if (const auto* bytes = qx::find<std::int64_t>(*transfer, "total")) moved.total += *bytes;
  }
  return moved;
}

docsource::Result<AccountProcess> AccountProcess::whenRunning(
    const Account& account, std::optional<std::chrono::milliseconds> timeout) {
  struct Changes {
    std::mutex mutex;
    std::condition_variable changed;
    bool hasChanged = false;
  };
  const auto changes = std::make_shared<Changes>();
  const auto note = [changes](const std::string& = {}) {
    const std::lock_guard lock(changes->mutex);
    changes->hasChanged = true;
    changes->changed.notify_one();
  };
  const qx::ServiceWatch service(account.identifier, note);
  const auto bundles = qx::DirectoryWatch::start(qx::Places::extensions(), note);
  const auto begun = std::chrono::steady_clock::now();
  while (true) {
    auto process = of(account);
    if (process) return process;
    if (const auto known = accountCalled(account.name); !known) return known.error();
    std::unique_lock lock(changes->mutex);
    const auto hasChanged = [&] { return changes->hasChanged; };
    if (!timeout) {
      changes->changed.wait(lock, hasChanged);
    } else if (!changes->changed.wait_until(lock, begun + *timeout, hasChanged)) {
      return process;
    }
    changes->hasChanged = false;
  }
}

}  // namespace tool
