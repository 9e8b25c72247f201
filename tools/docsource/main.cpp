// docsource: the command-line client of the document broker and the tool to administer it. What a
// call may do depends on the bundle that the program belongs to, "docsource.app" as installed.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <numeric>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "extensions/account/Settings.h"
#include "platform/base/FileDescriptor.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

struct Command {
  /// "first second" is the command `second` of the group `first`.
  const char* name;
  /// What the one argument without a name is, with "..." behind it when there may be several, or
  /// "[...]" around it when there may be none; two with a space between; null when there is none.
  const char* subject;
  bool takesProvider;
  bool takesConsumer;
  int (*run)(const Arguments&);
  const char* description;
};

/// In the order in which people meet them, which is that of --help.
constexpr Command commands[] = {
    {"add folder", "NAME DIRECTORY", false, false, addFolder,
     "Add an account for the documents of a directory, which then appear at ~/DocSource/NAME"},
    {"add webdav", "NAME URL", false, false, addWebDAV,
     "Add an account for the documents below an address of a WebDAV server"},
    {"add s3", "NAME s3://BUCKET[/PREFIX]", false, false, addS3,
     "Add an account for the documents in a bucket of an S3 store"},
    {"accounts", nullptr, false, false, accounts,
     "List the accounts, their state, and what waits to be uploaded"},
    {"remove", "NAME", false, false, removeAccount, "Remove an account and its documents here"},
    {"sync", "[NAME]", false, false, sync, "Compare both sides now, and wait until they agree"},
    {"conflicts", nullptr, false, false, conflicts,
     "List documents that were changed on both sides, or settle one of them"},
    {"status", "PATH...", false, false, status,
     "Say whether the content of documents is here, and how much space they occupy"},
    {"get", "PATH...", false, false, get, "Have the content of documents brought in"},
    {"evict", "PATH...", false, false, evict, "Have the space of documents given back"},
    {"pin", "PATH...", false, false, pin, "Keep the content of documents here from now on"},
    {"unpin", "PATH...", false, false, unpin, "Keep the content no longer"},
    {"read", "URL", false, false, read,
     "Have the document's content brought in and copy it to standard output"},
    {"transfers", nullptr, false, false, transfers, "List what is under way, in both directions"},
    {"cancel", "PATH", false, false, cancel, "Cancel the transfer of a document"},
    {"watch", nullptr, false, false, watch, "Print what happens in the accounts, as it happens"},
    {"doctor", nullptr, false, false, doctor,
     "Check everything that can be wrong, and say what to do about it"},
    {"grants", nullptr, false, false, grants, "List the grants"},
    {"revoke", "ITEM-OR-PATH", true, true, revoke, "Take a grant back"},
    {"extend-bookmark", "URL", false, true, extendBookmark,
     "Grant the document to the consumer and print a bookmarkable string for it"},
    {"extend-sandbox", "URL", true, true, extendSandbox,
     "Grant the document to the consumer and print the tokens for it"},
    {"bookmark", "URL", false, false, bookmark, "Print a bookmarkable string for the document"},
    {"resolve", "STRING", false, false, resolve,
     "Print the document of a bookmarkable string and the tokens for it"},
    {"consume", "TOKEN", false, false, consume,
     "Redeem a token and copy its document to standard output"},
    {"run", "IDENTIFIER", false, false, run,
     "Run an installed application in a sandbox; its arguments follow --"},
    {"install", "BUNDLE", false, false, install, "Install an application or a provider extension"},
    {"uninstall", "IDENTIFIER", false, false, uninstall, "Remove the bundles with that identifier"},
    {"bundles", nullptr, false, false, bundles, "List the installed bundles"},
    {"providers", nullptr, false, false, providers,
     "List the providers and the directories of their documents"},
    {"placeholder", "URL", true, true, placeholder, "Have a placeholder of the document made"},
    {"start", "URL", true, true, start, "Have the document's content brought in"},
    {"stop", "URL", true, true, stop, "Say that the consumer no longer needs the document"},
    {"wake-up", nullptr, false, false, wakeUp, "Wake the broker, and wait for its answer"},
    {"device status", nullptr, false, false, deviceStatus,
     "Show whether the device is locked, and how programs are coordinated"},
    {"device lock", nullptr, false, false, deviceLock, "Lock the device"},
    {"device unlock", nullptr, false, false, deviceUnlock, "Unlock the device"},
};

/// Within what fits the clocks; an operation that takes longer than a year has been forgotten.
std::string checkTimeout(const std::string& text) {
  double seconds = 0;
  if (!CLI::detail::lexical_cast(text, seconds) || !std::isfinite(seconds) || seconds < 0.001 ||
      seconds > 366.0 * 24 * 3600) {
    return "SECONDS is a number from 0.001 on";
  }
  return {};
}

/// What the word that stands for an argument means.
const char* meaningOf(std::string_view subject) {
  if (subject == "URL") return "The document: its path or its file URL";
  if (subject.starts_with("s3://")) return "The bucket, and where in it the documents begin";
  if (subject == "STRING") return "A bookmarkable string";
  if (subject == "TOKEN") return "A token, as extend-sandbox prints it";
  if (subject == "NAME") return "The account's name";
  if (subject == "DIRECTORY") return "Where its documents are";
  if (subject == "PATH") return "A document or a directory";
  if (subject == "ITEM-OR-PATH") return "The item as docsource grants lists it, or the document";
  if (subject == "BUNDLE") return "A directory NAME.app or NAME.docext";
  if (subject == "IDENTIFIER") return "A bundle identifier, as docsource bundles lists it";
  return "";
}

/// The group of that name, made at the first command that stands in it.
CLI::App& groupCalled(const std::string& name, CLI::App& app) {
  const auto known =
      app.get_subcommands([&](const CLI::App* one) { return one->get_name() == name; });
  if (!known.empty()) return *known.front();
  CLI::App& group = *app.add_subcommand(name, descriptionOfGroup(name));
  group.require_subcommand(1);
  group.fallthrough();
  return group;
}

/// Options of accounts on servers: each is a setting of the account.
struct SettingOption {
  const char* name;
  const char* key;
  /// What the option takes; null for one that is given or not, whose setting is then `value`.
  const char* type;
  const char* value;
  const char* description;
};

constexpr SettingOption reachOptions[] = {
    {"--ca", account::authorityKey, "FILE", nullptr,
     "Trust the certificate authorities in this file, instead of those of the system"},
    {"--certificate", account::clientCertificateKey, "FILE", nullptr,
     "Show this client certificate"},
    {"--certificate-key", account::clientKeyKey, "FILE", nullptr,
     "The private key of that certificate"},
    {"--proxy", account::proxyKey, "URL", nullptr,
     "Go through this proxy, instead of the one that https_proxy names"},
};
constexpr SettingOption webDAVOptions[] = {
    {"--user", account::userKey, "NAME", nullptr, "The name to log in with"},
    {"--password-command", account::secretCommandKey, "COMMAND", nullptr,
     "A command of the shell that prints the password when it is needed"},
    {"--password-file", account::secretFileKey, "FILE", nullptr,
     "A file with the password in its first line, that nobody else may read (mode 0600)"},
    {"--bearer", account::authenticationKey, nullptr, "bearer",
     "What the command prints or the file holds is a bearer token"},
};

constexpr SettingOption s3Options[] = {
    {"--endpoint", account::endpointKey, "URL", nullptr,
     "The address of the store, https://HOST or http://HOST:PORT"},
    {"--region", account::regionKey, "NAME", nullptr,
     "The region of the bucket; us-east-1 unless the store says another"},
    {"--key-command", account::secretCommandKey, "COMMAND", nullptr,
     "A command of the shell that prints the identifier of the key, its secret and, where it has "
     "one, its token, each on a line"},
    {"--key-file", account::secretFileKey, "FILE", nullptr,
     "A file with these lines, that nobody else may read (mode 0600); without either, docsourced "
     "has AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY in its environment"},
    {"--store-times", account::timesKey, nullptr, "store",
     "Show the store's own times, and ask no object for the document's time and permissions"},
};

void addSettings(std::span<const SettingOption> options, CLI::App& entry, Arguments& arguments) {
  for (const auto& option : options) {
    auto& settings = arguments.settings;
    if (option.type) {
      entry
          .add_option_function<std::string>(
              option.name,
              [&settings, &option](const std::string& value) { settings[option.key] = value; },
              option.description)
          ->type_name(option.type);
    } else {
      entry.add_flag_callback(
          option.name, [&settings, &option] { settings[option.key] = option.value; },
          option.description);
    }
  }
}

/// Those of single commands.
void addOptions(const Command& command, CLI::App& entry, Arguments& arguments) {
  if (command.run == addFolder || command.run == addWebDAV || command.run == addS3) {
    entry.add_flag("--no-open", arguments.noOpen,
                   "Do not show the documents in the file manager of the desktop");
    entry
        .add_option_function<std::uint64_t>(
            "--keep",
            [&arguments](std::uint64_t bytes) {
              // A negative number is taken for one near 2^64.
              constexpr std::uint64_t most = std::uint64_t{1} << 62;
              if (bytes > most) throw CLI::ValidationError("--keep", "SIZE is a size, such as 20G");
              arguments.settings[account::keepKey] = std::to_string(bytes);
            },
            "How much content is kept here, such as 20G; what was not read for longest is given "
            "back first")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false));
  }
  if (command.run == addWebDAV) {
    entry.add_flag("--login", arguments.login,
                   "Log in on a page of the server at URL, which gives the account a password of "
                   "its own (Nextcloud, ownCloud)");
    addSettings(webDAVOptions, entry, arguments);
    addSettings(reachOptions, entry, arguments);
  } else if (command.run == addS3) {
    addSettings(s3Options, entry, arguments);
    addSettings(reachOptions, entry, arguments);
  } else if (command.run == status) {
    entry.add_flag("-r,--recursive", arguments.recursive, "Include everything below directories");
    entry.add_flag("-d,--directory", arguments.directory,
                   "Look at directories themselves, instead of what is in them");
  } else if (command.run == watch) {
    entry.add_flag("--notify", arguments.notify,
                   "Notify the desktop of conflicts, of what fails for long and of accounts that "
                   "need you, instead of printing");
    entry
        .add_option_function<double>(
            "--patience",
            [&arguments](double seconds) {
              arguments.patience = std::chrono::milliseconds(std::llround(seconds * 1000));
            },
            "How long something fails before the desktop is told; 600 unless given")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
  } else if (command.run == get || command.run == evict || command.run == pin ||
             command.run == unpin) {
    entry.add_flag("--notify", arguments.notify,
                   "Notify the desktop, too, of what could not be done");
  } else if (command.run == removeAccount) {
    entry.add_flag("--discard", arguments.discard, "Give up documents that exist nowhere else");
  } else if (command.run == sync) {
    entry.add_flag("--confirm-deletions", arguments.confirmDeletions,
                   "Delete the many documents that are gone on one side on the other");
  } else if (command.run == install) {
    entry.add_flag("--yes", arguments.yes,
                   "Give an application what it asks of the world, without a question");
  } else if (command.run == run) {
    entry
        .add_option("--document", arguments.documents,
                    "A document that is granted to it and shown under its path")
        ->type_name("PATH...");
  } else if (command.run == conflicts) {
    entry.add_option("--take", arguments.take, "The version that is to be the document")
        ->type_name("PATH");
  }
}

/// The arguments without a name.
void addSubjects(std::string_view subject, CLI::App& entry, Arguments& arguments) {
  const auto option = [&](std::string_view word, auto& place) {
    return entry.add_option(std::string(word), place, meaningOf(word))->type_name("");
  };
  if (subject.empty()) return;
  if (subject.ends_with("...")) {
    option(subject.substr(0, subject.find('.')), arguments.subjects)->required();
  } else if (subject.starts_with('[')) {
    option(subject.substr(1, subject.size() - 2), arguments.subject);
  } else {
    const auto space = std::min(subject.find(' '), subject.size());
    option(subject.substr(0, space), arguments.subject)->required();
    if (space == subject.size()) return;
    auto* const second = option(subject.substr(space + 1), arguments.second)->required();
    if (subject.ends_with(" URL")) second->description("Their address, https://HOST/PATH");
  }
}

/// Those of all commands, before the command's name and behind it.
void addCommonOptions(CLI::App& app, Arguments& arguments) {
  app.add_flag("--json", arguments.json,
               "Print one JSON object (watch one a line); an error as one, too");
  app.add_option_function<double>(
         "--timeout",
         [&arguments](double seconds) {
           arguments.timeout = std::chrono::milliseconds(std::llround(seconds * 1000));
           arguments.givenTimeout = arguments.timeout;
         },
         "How long to wait for an answer; 30 unless given")
      ->type_name("SECONDS")
      ->check(checkTimeout);
}

/// That of a command which was added before.
const CLI::App* subcommandCalled(const std::string& name, const CLI::App& app) {
  const auto space = name.find(' ');
  const auto* first = app.get_subcommand(name.substr(0, space));
  return space == std::string::npos ? first : first->get_subcommand(name.substr(space + 1));
}

void add(CLI::App& app, const Command& command, Arguments& arguments, const Command*& chosen) {
  const std::string_view name = command.name;
  const auto word = name.find(' ') + 1;  // 0 where there is but one
  CLI::App& group = word == 0 ? app : groupCalled(std::string(name.substr(0, word - 1)), app);
  CLI::App* entry = group.add_subcommand(std::string(name.substr(word)), command.description);
  entry->fallthrough();
  addSubjects(command.subject ? command.subject : "", *entry, arguments);
  addCommonOptions(*entry, arguments);
  addOptions(command, *entry, arguments);
  if (command.takesProvider) {
    entry->add_option("--provider", arguments.provider, "The provider's bundle identifier")
        ->type_name("IDENTIFIER")
        ->required();
  }
  if (command.takesConsumer) {
    entry->add_option("--consumer", arguments.consumer, "The consumer's bundle identifier")
        ->type_name("IDENTIFIER")
        ->required();
  }
  entry->callback([&chosen, &command] { chosen = &command; });
}

/// How many letters differ, are missing or are too many, at most.
std::size_t distance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < one.size(); ++i) {
    auto diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const auto replaced = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = std::exchange(row[j + 1], std::min({replaced, row[j] + 1, row[j + 1] + 1}));
    }
  }
  return row.back();
}

/// What is probably meant by a word that is no command, or none of the group; empty where nothing
/// is.
std::string likelyCommand(std::string_view word, const std::string& group) {
  std::string_view best;
  for (const auto& command : commands) {
    const std::string_view whole = command.name;
    const auto space = std::min(whole.find(' '), whole.size());
    const bool isOfGroup = space < whole.size() && whole.substr(0, space) == group;
    if (!group.empty() && !isOfGroup) continue;
    const auto name = group.empty() ? whole.substr(0, space) : whole.substr(space + 1);
    if (best.empty() || distance(word, name) < distance(word, best)) best = name;
  }
  return distance(word, best) <= 2 && word.size() > 1 ? std::string(best) : std::string();
}

/// How the command is used, without options that may be left out.
std::string usageOf(const Command& command) {
  auto usage = "docsource " + std::string(command.name);
  if (command.subject) usage.append(" ").append(command.subject);
  if (command.takesProvider) usage += " --provider IDENTIFIER";
  if (command.takesConsumer) usage += " --consumer IDENTIFIER";
  return usage;
}

/// Words that nothing was expected for, with what was probably meant.
std::string describeExtras(const std::vector<std::string>& extras, const Command* command) {
  std::string text = extras.size() == 1 ? "This was not expected:" : "These were not expected:";
  for (const auto& word : extras) text += " " + onOneLine(word);
  std::string likely;
  for (const auto& option : optionNames()) {
    const bool isOfCommand = command && option.command == command->name;
    const bool isLikely =
        extras.front().starts_with("--") &&
        (option.name.starts_with(extras.front()) || distance(option.name, extras.front()) <= 2);
    if (isOfCommand && isLikely) likely += (likely.empty() ? "" : " or ") + option.name;
  }
  return text + (likely.empty() ? "." : "; is it " + likely + "?");
}

/// Says what is wrong with a command line that cannot be understood, and how the command is used.
int refuse(bool json, const CLI::App& app, const CLI::ParseError& error) {
  const auto rest = app.remaining(true);
  std::string group;
  const Command* command = nullptr;
  for (const auto& each : commands) {
    const std::string name = each.name;
    const auto space = name.find(' ');
    const auto* first = app.get_subcommand(name.substr(0, space));
    if (!first->parsed()) continue;
    if (space != std::string::npos) group = name.substr(0, space);
    if (subcommandCalled(name, app)->parsed()) command = &each;
  }
  if (command) {
    auto sentence = rest.empty() ? std::string(error.what()) : describeExtras(rest, command);
    if (!sentence.ends_with('.') && !sentence.ends_with('?')) sentence += ".";
    return refuseUsage(
        json, sentence,
        "Usage: " + usageOf(*command) + "; docsource " + command->name + " --help says more");
  }
  const bool isWord = !rest.empty() && !rest.front().starts_with('-');
  if (!isWord && !rest.empty()) {
    return refuseUsage(json, describeExtras(rest, nullptr), "docsource --help lists the options");
  }
  std::string whole = "docsource" + (group.empty() ? "" : " " + group);
  if (!isWord) {
    return refuseUsage(json, group.empty() ? error.what() : "\"" + whole + "\" is not enough.",
                       whole + " --help lists what can come next");
  }
  const auto likely = likelyCommand(rest.front(), group);
  return refuseUsage(
      json,
      "There is no command \"" + (group.empty() ? "" : group + " ") + onOneLine(rest.front()) +
          "\"" +
          (likely.empty() ? "."
                          : "; is it \"" + (group.empty() ? "" : group + " ") + likely + "\"?"),
      whole + " --help lists those that there are");
}

/// Cuts off what is for the program that is to be run, so that it reaches that program as it is.
int cutArguments(int argc, const char* const* argv, Arguments& arguments) {
  const auto* const end = argv + argc;
  const auto* const mark = std::find(argv, end, std::string_view("--"));
  if (mark == end || std::find(argv, mark, std::string_view("run")) == mark) return argc;
  arguments.rest.assign(mark + 1, end);
  return static_cast<int>(mark - argv);
}

/// All that a command line can be. `arguments` and `chosen` are filled in when one is parsed.
void describe(CLI::App& app, Arguments& arguments, const Command*& chosen) {
  app.require_subcommand(1);
  app.set_version_flag("--version", "docsource " DOCSOURCE_VERSION, "Say which version this is");
  addCommonOptions(app, arguments);
  app.footer(
      "A URL may be a plain path. The exit status is 0; 1 when the operation answered with an "
      "error or not in time; 2 for a wrong command line; 3 when the service cannot be reached. "
      "That of a program that is run is passed on.");
  for (const auto& command : commands) add(app, command, arguments, chosen);
}

int interpret(int argc, const char* const* argv) {
  if (argc > 1 && argv[1] == std::string_view("--complete")) {
    return complete({argv + 2, argv + argc});
  }
  // "help COMMAND" is "COMMAND --help".
  std::vector<const char*> words(argv, argv + argc);
  if (argc > 1 && argv[1] == std::string_view("help")) {
    words.erase(words.begin() + 1);
    words.push_back("--help");
    argv = words.data();
  }
  Arguments arguments;
  argc = cutArguments(argc, argv, arguments);
  arguments.timeout = std::chrono::seconds(30);
  const Command* chosen = nullptr;
  CLI::App app("Client of the document broker, and the tool to administer it.", "docsource");
  describe(app, arguments, chosen);
  if (argc == 1) {
    std::fputs(app.help().c_str(), stderr);
    return wrongUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    const bool json = std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
    return refuse(json, app, error);
  }
  if (chosen->run != run && !arguments.rest.empty()) {
    return refuseUsage(arguments.json, "Only a program that is run takes arguments behind --.",
                       "Usage: docsource run IDENTIFIER -- ARGUMENTS");
  }
  return chosen->run(arguments);
}

}  // namespace

const char* descriptionOfGroup(const std::string& group) {
  return group == "add" ? "Add an account" : "The lock of the device";
}

std::vector<CommandName> commandNames() {
  std::vector<CommandName> names;
  for (const auto& each : commands) names.push_back({each.name, each.subject, each.description});
  return names;
}

std::vector<OptionName> optionNames() {
  Arguments arguments;
  const Command* chosen = nullptr;
  CLI::App app;
  describe(app, arguments, chosen);
  std::vector<OptionName> names;
  const auto take = [&](const std::string& command, const CLI::App& entry) {
    for (const CLI::Option* option : entry.get_options()) {
      if (option->get_lnames().empty()) continue;
      const bool takesValue = option->get_items_expected_max() > 0;
      names.push_back({command, "--" + option->get_lnames().front(),
                       takesValue ? option->get_type_name() : "", option->get_description()});
    }
  };
  take("", app);
  for (const auto& command : commands) take(command.name, *subcommandCalled(command.name, app));
  return names;
}

}  // namespace tool

int main(int argc, char** argv) {
  qx::fillStandardDescriptors(qx::StandardDescriptors::fail);
  return tool::interpret(argc, argv);
}
