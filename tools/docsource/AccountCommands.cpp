// The commands about accounts as a whole: adding, listing, synchronising and removing them.
//
// An account is there with its bundle, which is put in place at once and whole; the link to its
// documents comes before, as that may be refused, and goes after.

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "docsource/placeholder.h"
#include "platform/base/Errors.h"
#include "platform/device/KeyState.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/plist/PropertyList.h"
#include "tools/docsource/AccountTrial.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/BundleInstaller.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Desktop.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"
#include "tools/docsource/ProgressBar.h"

#ifndef DOCSOURCE_ACCOUNT_PROGRAMS
#define DOCSOURCE_ACCOUNT_PROGRAMS "."
#endif

namespace tool {
namespace {

namespace fs = std::filesystem;
using docsource::Error;
using docsource::Result;

/// The program of an account's process: where it is installed to, or beside this one in a build.
Result<std::string> programOf(const std::string& kind) {
  std::error_code failed;
  const auto here = fs::read_symlink("/proc/self/exe", failed).parent_path();
  const auto name = "docsource-" + kind;
  for (const auto& directory : {here / DOCSOURCE_ACCOUNT_PROGRAMS, here}) {
    const auto program = fs::weakly_canonical(directory / name, failed);
    if (::access(program.c_str(), X_OK) == 0) return program.string();
  }
  return complaint("The program \"" + name + "\" is not installed beside this one");
}

Result<void> makeLink(const std::string& link, const std::string& storage) {
  std::error_code failed;
  fs::create_directories(fs::path(link).parent_path(), failed);
  if (failed) return Error::file(failed.value(), fs::path(link).parent_path());
  if (::symlink(storage.c_str(), link.c_str()) == 0) return {};
  if (errno != EEXIST) return Error::file(errno, link);
  if (fs::read_symlink(link, failed) == storage) return {};
  return complaint("The documents would appear at " + link +
                   ", but there is something already; rename that, or choose another name");
}

void removeLink(const Account& account) {
  std::error_code failed;
  const auto link = linkFor(account.name);
  if (fs::read_symlink(link, failed) == account.storage) fs::remove(link, failed);
}

/// The bundle is made where no one looks for bundles, and installed from there.
Result<void> install(const std::string& name, const account::Lists& lists) {
  std::string staging = qx::Places::root() + "/.account.XXXXXX";
  if (auto error = qx::FileManager::createDirectory(qx::Places::root())) {
    return docsource::bridge::fromPlatform(*error);
  }
  if (!::mkdtemp(staging.data())) return Error::file(errno, staging);
  const auto bundle = staging + "/" + account::bundleNameOf(name) + ".docext";
  auto error = qx::FileManager::createDirectory(bundle);
  for (const auto& [file, list] : {std::pair("/Info.plist", &lists.info),
                                   std::pair("/Entitlements.plist", &lists.entitlements)}) {
    const auto text = qx::PropertyList::write(*list);
    if (!error && text) error = qx::FileManager::replaceFile(bundle + file, *text, 0600);
    if (!text) error = text.error();
  }
  if (!error) {
    const auto installed = installBundle(bundle);
    if (!installed) error = installed.error();
  }
  qx::FileManager::removeTree(staging);
  if (error) return docsource::bridge::fromPlatform(*error);
  return {};
}

/// Where the documents of a folder account are to come from.
Result<std::string> folderFrom(const std::string& argument) {
  std::error_code failed;
  const auto folder = fs::canonical(absolutePath(argument), failed).string();
  if (failed || !fs::is_directory(folder, failed)) {
    return complaint("There is no directory " + absolutePath(argument) +
                     "; mount or make it first");
  }
  const auto root = fs::weakly_canonical(qx::Places::root(), failed).string();
  if (folder == root || folder == "/" || folder.starts_with(root + "/") ||
      root.starts_with(folder + "/")) {
    return complaint("The directory " + folder + " and " + root +
                     ", where docsource keeps what is its own, lie in one another; choose another "
                     "directory, one with nothing but documents");
  }
  return folder;
}

/// The settings that the options of a server give, with whole paths for files.
Result<qx::Dictionary> settingsFrom(const Arguments& arguments) {
  qx::Dictionary settings;
  for (const auto& [key, value] : arguments.settings) settings[key] = value;
  for (const char* key : {account::secretFileKey, account::authorityKey,
                          account::clientCertificateKey, account::clientKeyKey}) {
    const auto* file = qx::find<std::string>(settings, key);
    if (!file) continue;
    auto path = absolutePath(*file);
    if (::access(path.c_str(), R_OK) != 0) return Error::file(errno, path);
    settings[key] = std::move(path);
  }
  const auto* proxy = qx::find<std::string>(settings, account::proxyKey);
  if (proxy && proxy->find('@') != std::string::npos) {
    return complaint(
        "A password of a proxy does not belong on a command line; docsourced takes "
        "the proxy with its password from https_proxy in its environment");
  }
  if (settings.contains(account::secretFileKey) && settings.contains(account::secretCommandKey)) {
    return complaint("The password comes from a command or from a file, not from both");
  }
  return settings;
}

Result<void> checkName(const std::string& name) {
  if (const auto problem = account::problemOfName(name)) return complaint(*problem);
  if (!accountCalled(name)) return {};
  return complaint("There is an account \"" + name +
                   "\" already; choose another name, or remove it");
}

/// Until the account can be asked and its documents are there, of many of them for a while; not on
/// a locked device, whose providers come later.
Result<void> waitFor(const Account& account, std::chrono::milliseconds timeout) {
  // Under a service manager this starts the broker where it does not run.
  if (auto awake = docsource::Client(timeout).wakeUp(); !awake) return awake;
  if (!qx::readKeyState().unlockedSinceBoot) return {};
  auto process = AccountProcess::whenRunning(account, timeout);
  if (!process) return process.error();
  constexpr std::chrono::milliseconds aWhile(5000);
  // What is wrong with the remote docsource accounts says; the account is there all the same.
  (void)process->ask<>(
      [](DSAccount& each, auto completion) {
        each.syncConfirmingRemovals_completion(false, std::move(completion));
      },
      std::min(aWhile, timeout));
  return {};
}

/// Adds the account, whose name is good, once its program has found that it would work.
int add(const Arguments& arguments, const std::string& kind, const qx::Dictionary& settings) {
  const auto& name = arguments.subject;
  const auto program = programOf(kind);
  if (!program) return fail(arguments, program.error());
  const auto lists = account::listsFor(name, kind, *program, settings);
  qx::Bundle bundle{};
  bundle.identifier = account::identifierOf(name);
  bundle.info = lists.info;
  const auto added = *account::accountOf(bundle);
  const auto notes = tryAccount(*program, settings, arguments.timeout);
  if (!notes) return fail(arguments, notes.error());
  const auto link = linkFor(name);
  if (auto linked = makeLink(link, added.storage); !linked) return fail(arguments, linked.error());
  if (auto installed = install(name, lists); !installed) {
    removeLink(added);
    return fail(arguments, installed.error());
  }
  qx::Dictionary object{{"name", name},
                        {"identifier", added.identifier},
                        {"documents", link},
                        {"storage", added.storage}};
  if (!notes->empty()) object["note"] = *notes;
  const int printed =
      answer(arguments.json, object,
             "added " + onOneLine(name) + "; its documents appear at " + onOneLine(link) + "\n" +
                 (notes->empty() ? "" : onOneLine(*notes) + "\n"));
  const auto runs = waitFor(added, arguments.timeout);
  if (!runs) {
    std::fprintf(stderr, "Note: the documents appear when the account runs. %s\n",
                 onOneLine(runs.error().description()).c_str());
  }
  // For a person who typed it; a script wants no windows.
  const bool isWatched = !arguments.noOpen && !arguments.json && ::isatty(STDOUT_FILENO) == 1;
  if (runs && isWatched && desktop::isThere()) desktop::showDirectory(link);
  return printed;
}

std::string textOf(const qx::Dictionary& dictionary, const char* key) {
  const auto* text = qx::find<std::string>(dictionary, key);
  return text ? *text : "";
}
std::int64_t numberOf(const qx::Dictionary& dictionary, const char* key) {
  const auto* number = qx::find<std::int64_t>(dictionary, key);
  return number ? *number : 0;
}

Result<qx::Dictionary> healthOf(AccountProcess& process, const Arguments& arguments) {
  const auto answer = process.ask<qx::Dictionary>(
      [](DSAccount& account, auto completion) { account.healthCompletion(std::move(completion)); },
      arguments.timeout);
  if (!answer) return answer.error();
  return std::get<0>(*answer).value_or(qx::Dictionary());
}
Result<qx::Dictionary> healthOf(const Account& account, const Arguments& arguments) {
  auto process = AccountProcess::of(account);
  return process ? healthOf(*process, arguments) : process.error();
}

/// A line for a person: how the account is, and what to do about it.
std::string describe(const Account& account, const qx::Dictionary& health) {
  const auto waiting = numberOf(health, "waiting");
  const auto failed = numberOf(health, "failed");
  std::string text = account.name + ": " + textOf(health, "state");
  if (waiting > 0) text += ", " + std::to_string(waiting) + " to upload";
  if (failed > 0) text += ", " + std::to_string(failed) + " of them failed";
  auto said = textOf(health, "reason");
  const auto* error = qx::find<qx::Error>(health, "error");
  if (error && error->description() != said) {
    said += (said.empty() ? "" : " ") + error->description();
  }
  if (!said.empty()) text += ". " + said;
  if (failed > 0)
    text += (said.empty() ? ". " : " ") +
            ("Which, and why: docsource status -r \"" + linkFor(account.name)) + "\"";
  if (textOf(health, "state") == "needs-confirmation") {
    text += " " + remedyFor(account, "needs-confirmation");
  }
  return onOneLine(text) + "\n";
}

/// The documents that would be lost with the account: not uploaded, or never to be. At most so
/// many.
Result<std::vector<std::string>> onlyHere(const Account& account, AccountProcess& process,
                                          const Arguments& arguments, std::size_t most) {
  std::vector<std::string> found;
  std::error_code failed;
  qx::Array urls;
  std::vector<std::string> paths;
  const auto ask = [&]() -> Result<void> {
    const auto answer = process.ask<qx::Array>(
        [&](DSAccount& each, auto completion) {
          each.statusOfItemsAtURLs_completion(urls, std::move(completion));
        },
        arguments.timeout);
    if (!answer) return answer.error();
    const auto items = std::get<0>(*answer).value_or(qx::Array());
    for (std::size_t i = 0; i < paths.size(); ++i) {
      const auto* item = i < items.size() ? items[i].as<qx::Dictionary>() : nullptr;
      const auto state = item ? textOf(*item, "state") : "";
      const bool isElsewhere = state == "placeholder" || state == "present" || state == "conflict";
      const auto* isDirectory = item ? qx::find<bool>(*item, "isDirectory") : nullptr;
      if (!isElsewhere && !(isDirectory && *isDirectory) && found.size() < most) {
        found.push_back(paths[i]);
      }
    }
    urls.clear();
    paths.clear();
    return {};
  };
  constexpr std::size_t atATime = 1000;
  for (fs::recursive_directory_iterator entry(account.storage, failed), end;
       !failed && entry != end && found.size() < most; entry.increment(failed)) {
    paths.push_back(entry->path());
    urls.emplace_back(qx::URL::fileURL(paths.back()));
    if (paths.size() < atATime) continue;
    if (auto asked = ask(); !asked) return asked.error();
  }
  if (failed && failed.value() != ENOENT) return Error::file(failed.value(), account.storage);
  if (auto asked = ask(); !asked) return asked.error();
  return found;
}

/// Whether nothing is lost with the account.
Result<void> checkRemoval(const Account& account, const Arguments& arguments) {
  const std::string otherwise = "; or remove it with --discard, which deletes what is only here";
  auto process = AccountProcess::of(account);
  if (!process) {
    return Error(docsource::LibraryError::serviceUnavailable,
                 "The account \"" + account.name +
                     "\" is not running, so nobody can tell what is only here. Have it run" +
                     otherwise + ".");
  }
  // It may be looking through what is there, for longer than anybody waits.
  const auto unanswered = [&](const Error& error) {
    if (error.code() != static_cast<std::int64_t>(docsource::LibraryError::timedOut)) return error;
    return Error(docsource::LibraryError::timedOut,
                 "The account \"" + account.name +
                     "\" did not say in time what is only here. Try again when it has looked at "
                     "everything" +
                     otherwise + ".");
  };
  const auto health = healthOf(*process, arguments);
  if (!health) return unanswered(health.error());
  if (const auto waiting = numberOf(*health, "waiting"); waiting > 0) {
    return complaint(
        "The account \"" + account.name + "\" has " +
        (waiting == 1 ? "one change that has" : std::to_string(waiting) + " changes that have") +
        " not been uploaded. See to it with docsource sync \"" + account.name + "\"" + otherwise);
  }
  constexpr std::size_t named = 5;
  const auto left = onlyHere(account, *process, arguments, named);
  if (!left) return unanswered(left.error());
  if (left->empty()) return {};
  std::string text = "The account \"" + account.name + "\" has documents that are only here:";
  for (const auto& path : *left) text += " " + path + ";";
  return complaint(text + " move them elsewhere" + otherwise);
}

}  // namespace

int addFolder(const Arguments& arguments) {
  if (auto named = checkName(arguments.subject); !named) return fail(arguments, named.error());
  const auto folder = folderFrom(arguments.second);
  if (!folder) return fail(arguments, folder.error());
  auto settings = settingsFrom(arguments);
  if (!settings) return fail(arguments, settings.error());
  (*settings)[account::directoryKey] = *folder;
  return add(arguments, "folder", *settings);
}

/// Whether whatever goes to the URL can be read on the way.
bool isInTheClear(const std::string& url) {
  constexpr std::string_view scheme = "http://";
  if (url.size() < scheme.size() || strncasecmp(url.c_str(), scheme.data(), scheme.size()) != 0) {
    return false;
  }
  auto host = url.substr(scheme.size(), url.find_first_of("/?#", scheme.size()) - scheme.size());
  if (host.starts_with('[')) return !host.starts_with("[::1]");
  host.resize(std::min(host.find(':'), host.size()));
  const bool isAddress = host.find_first_not_of("0123456789.") == std::string::npos;
  return host != "localhost" && !(isAddress && host.starts_with("127."));
}

/// The file with the password that somebody who has logged in was given for this account. It lies
/// with the account's own things and goes with them.
std::string passwordFileOf(const std::string& name) {
  qx::Bundle bundle{};
  bundle.identifier = account::identifierOf(name);
  bundle.info = account::listsFor(name, "webdav", "", {}).info;
  return account::accountOf(bundle)->container + "/password";
}

/// Has somebody log in; the settings say from then on who asks, and where the password is.
Result<void> logInFor(const Arguments& arguments, qx::Dictionary& settings) {
  for (const char* key : {account::userKey, account::secretCommandKey, account::secretFileKey,
                          account::authenticationKey}) {
    if (settings.contains(key)) {
      return complaint("Who logs in on a page is given a password there; --login goes with none");
    }
  }
  const auto program = programOf("webdav");
  if (!program) return program.error();
  settings[account::urlKey] = arguments.second;
  const auto login = logIn(*program, settings, [](const std::string& page) {
    std::fprintf(stderr, "Open this page in a browser, and agree there:\n  %s\n",
                 onOneLine(page).c_str());
  });
  if (!login) return login.error();
  auto file = passwordFileOf(arguments.subject);
  auto error = qx::FileManager::createDirectory(fs::path(file).parent_path());
  if (!error) error = qx::FileManager::replaceFile(file, login->password + "\n", 0600);
  if (error) return docsource::bridge::fromPlatform(*error);
  settings[account::urlKey] = login->url;
  settings[account::userKey] = login->user;
  settings[account::secretFileKey] = std::move(file);
  return {};
}

/// The account was not made: its password goes, and its directory when that is all there was.
void forgetPassword(const std::string& file) {
  std::error_code failed;
  fs::remove(file, failed);
  fs::remove(fs::path(file).parent_path(), failed);
}

int addWebDAV(const Arguments& arguments) {
  if (auto named = checkName(arguments.subject); !named) return fail(arguments, named.error());
  auto settings = settingsFrom(arguments);
  if (!settings) return fail(arguments, settings.error());
  if (arguments.login) {
    if (auto done = logInFor(arguments, *settings); !done) return fail(arguments, done.error());
    const int status = add(arguments, "webdav", *settings);
    if (status != success) forgetPassword(passwordFileOf(arguments.subject));
    return status;
  }
  const auto has = [&](const char* key) { return settings->contains(key); };
  const bool hasSecret = has(account::secretCommandKey) || has(account::secretFileKey);
  if (!hasSecret && (has(account::userKey) || has(account::authenticationKey))) {
    return fail(arguments, complaint("Say what tells the password, with --password-command or "
                                     "--password-file"));
  }
  if (hasSecret && !has(account::userKey) && !has(account::authenticationKey)) {
    return fail(arguments, complaint("Say whose password it is, with --user; or that it is a "
                                     "token, with --bearer"));
  }
  if (hasSecret && isInTheClear(arguments.second)) {
    std::fprintf(stderr,
                 "docsource: warning: %s is not encrypted. Everybody on the way can read the "
                 "documents, and the password too unless the server asks for a digest of it. Use "
                 "https:// if the server has it.\n",
                 onOneLine(arguments.second).c_str());
  }
  (*settings)[account::urlKey] = arguments.second;
  return add(arguments, "webdav", *settings);
}

int addS3(const Arguments& arguments) {
  if (auto named = checkName(arguments.subject); !named) return fail(arguments, named.error());
  auto settings = settingsFrom(arguments);
  if (!settings) return fail(arguments, settings.error());
  (*settings)[account::urlKey] = arguments.second;
  return add(arguments, "s3", *settings);
}

int accounts(const Arguments& arguments) {
  qx::Array array;
  std::vector<std::vector<std::string>> rows;
  std::string notes;
  for (const auto& each : installedAccounts()) {
    const auto link = linkFor(each.name);
    auto health = healthOf(each, arguments);
    qx::Dictionary object = health ? *health : qx::Dictionary{{"state", "not-running"}};
    if (!health) object["reason"] = health.error().description();
    rows.push_back({each.name, each.kind, textOf(object, "state"),
                    std::to_string(numberOf(object, "items")),
                    std::to_string(numberOf(object, "waiting")),
                    std::to_string(numberOf(object, "failed")), link, each.source});
    if (object.contains("reason") || numberOf(object, "failed") > 0)
      notes += describe(each, object);
    object["name"] = each.name;
    object["kind"] = each.kind;
    object["identifier"] = each.identifier;
    object["source"] = each.source;
    object["documents"] = link;
    object["storage"] = each.storage;
    array.emplace_back(std::move(object));
  }
  if (rows.empty()) {
    notes = "There is no account yet; docsource add --help says how one is added.\n";
  }
  return answer(arguments.json, {{"accounts", std::move(array)}},
                rows.empty() ? notes
                             : table({"ACCOUNT", "KIND", "STATE", "ITEMS", "TO UPLOAD", "FAILED",
                                      "DOCUMENTS", "SOURCE"},
                                     rows) +
                                   notes);
}

int removeAccount(const Arguments& arguments) {
  const auto found = accountCalled(arguments.subject);
  if (!found) return fail(arguments, found.error());
  if (!arguments.discard) {
    if (auto checked = checkRemoval(*found, arguments); !checked) {
      return fail(arguments, checked.error());
    }
  }
  const auto gone = uninstallBundles(found->identifier);
  if (!gone) return fail(arguments, docsource::bridge::fromPlatform(gone.error()));
  removeLink(*found);
  // Under a name that nobody has, so that an account of the same name begins anew.
  std::string removed = qx::Places::groupContainers() + "/.removed.XXXXXX";
  if (qx::FileManager::fileExists(found->container)) {
    if (!::mkdtemp(removed.data()) ||
        ::rename(found->container.c_str(), (removed + "/account").c_str()) != 0) {
      return fail(arguments, Error::file(errno, found->container));
    }
    if (auto error = qx::FileManager::removeTree(removed)) {
      return fail(arguments, docsource::bridge::fromPlatform(*error));
    }
  }
  return answer(arguments.json, {{"name", found->name}},
                "removed " + onOneLine(found->name) + "\n");
}

int sync(const Arguments& arguments) {
  auto chosen = installedAccounts();
  if (!arguments.subject.empty()) {
    const auto found = accountCalled(arguments.subject);
    if (!found) return fail(arguments, found.error());
    chosen = {*found};
  }
  qx::Array array;
  std::string text;
  int outcome = success;
  for (const auto& each : chosen) {
    auto process = AccountProcess::of(each);
    auto health = process ? Result<qx::Dictionary>(qx::Dictionary()) : process.error();
    if (process) {
      const auto done = process->ask<>(
          [&](DSAccount& account, auto completion) {
            account.syncConfirmingRemovals_completion(arguments.confirmDeletions,
                                                      std::move(completion));
          },
          arguments.givenTimeout);
      health = healthOf(*process, arguments);
      if (!done && health) (*health)["error"] = docsource::bridge::toPlatform(done.error());
    }
    if (!health) {
      outcome = fail(arguments, health.error());
      continue;
    }
    const bool isDone = textOf(*health, "state") == "ok" && numberOf(*health, "waiting") == 0 &&
                        !health->contains("error");
    if (!isDone && outcome == success) outcome = operationFailed;
    text += describe(each, *health);
    (*health)["name"] = each.name;
    array.emplace_back(*std::move(health));
  }
  const int printed = answer(arguments.json, {{"accounts", std::move(array)}}, text);
  return outcome == success ? printed : outcome;
}

}  // namespace tool
