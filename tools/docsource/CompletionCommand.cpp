// What the shells' completion scripts ask: `docsource --complete WORD…`, the words that stand
// behind the program's name up to the one that is being typed. It knows the commands from their own
// table, and identifiers, accounts and documents from where they are.

#include <algorithm>
#include <set>

#include "tools/docsource/Accounts.h"
#include "tools/docsource/BundleInstaller.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

using Words = std::vector<std::string>;

void offer(const std::string& word, const std::string& description = "") {
  print(onOneLine(word) + (description.empty() ? "" : "\t" + onOneLine(description)) + "\n");
}

void offerIdentifiers(qx::BundleKind kind, bool ofMachineToo = true) {
  for (const auto standing : {qx::BundleStanding::machine, qx::BundleStanding::user}) {
    if (standing == qx::BundleStanding::machine && !ofMachineToo) continue;
    for (const auto& installed : installedBundles(kind, standing)) {
      if (installed.bundle) offer(installed.bundle->identifier, installed.path);
    }
  }
}

void offerAccounts() {
  for (const auto& account : installedAccounts()) offer(account.name, account.source);
}

/// The first words of the commands, or the second ones of a group.
void offerCommands(const std::string& group) {
  std::set<std::string> told;
  for (const auto& command : commandNames()) {
    const std::string name = command.name;
    const auto space = std::min(name.find(' '), name.size());
    if (group.empty() && told.insert(name.substr(0, space)).second) {
      offer(name.substr(0, space),
            space == name.size() ? command.description : descriptionOfGroup(name.substr(0, space)));
    } else if (!group.empty() && space < name.size() && name.substr(0, space) == group) {
      offer(name.substr(space + 1), command.description);
    }
  }
}

/// The command that the words begin with, options left out, and how many words come after it.
struct Typed {
  std::optional<CommandName> command;
  std::string group;
  std::size_t arguments = 0;
};
Typed typed(const Words& words) {
  Words plain;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const auto& word = words[i];
    if (word == "--timeout" || word == "--provider" || word == "--consumer" || word == "--take") {
      ++i;
    } else if (!word.starts_with('-')) {
      plain.push_back(word);
    }
  }
  for (const auto& command : commandNames()) {
    const std::string name = command.name;
    const auto space = name.find(' ');
    const std::size_t length = space == std::string::npos ? 1 : 2;
    if (plain.size() < length) continue;
    const auto given = length == 1 ? plain[0] : plain[0] + " " + plain[1];
    if (given == name) return {command, "", plain.size() - length};
  }
  return {std::nullopt, plain.empty() ? "" : plain[0], 0};
}

void offerOptions(const std::optional<CommandName>& command) {
  offer("--json", "Print one JSON object");
  offer("--timeout", "How long to wait for an answer, in seconds");
  offer("--help", "Say what it does");
  if (!command) return offer("--version", "Say which version this is");
  const std::string_view name = command->name;
  if (name == "status") offer("--recursive", "Of everything below a directory");
  if (name == "status") offer("--directory", "Of directories themselves");
  if (name == "watch") offer("--notify", "Notify the desktop, instead of printing");
  if (name.starts_with("add ")) offer("--no-open", "Show nothing in the file manager");
  if (name == "remove") offer("--discard", "Even what exists nowhere else");
  if (name == "install") offer("--yes", "Give an application what it wants");
  if (name == "sync") offer("--confirm-deletions", "Delete what is gone on the other side");
  if (name == "conflicts") offer("--take", "The version that is to be the document");
  const bool isItemRequest = name == "placeholder" || name == "start" || name == "stop" ||
                             name == "extend-sandbox" || name == "revoke";
  if (isItemRequest) offer("--provider", "The provider's bundle identifier");
  if (isItemRequest || name == "extend-bookmark") {
    offer("--consumer", "The consumer's bundle identifier");
  }
}

void offerArguments(const CommandName& command, std::size_t before) {
  const std::string_view name = command.name, subject = command.subject ? command.subject : "";
  if (name == "run" && before == 0) return offerIdentifiers(qx::BundleKind::application);
  if (name == "uninstall" && before == 0) {
    offerIdentifiers(qx::BundleKind::application, false);
    return offerIdentifiers(qx::BundleKind::extension, false);
  }
  if ((name == "sync" || name == "remove") && before == 0) return offerAccounts();
  if (name == "install") return offer("/directories");
  if (name == "add folder" && before == 1) return offer("/directories");
  if (subject.ends_with("...") ||
      (before == 0 && (subject == "URL" || subject == "PATH" || subject == "ITEM-OR-PATH"))) {
    offer("/files");
  }
}

}  // namespace

int complete(const std::vector<std::string>& words) {
  const auto before = words.size() > 1 ? words[words.size() - 2] : "";
  const auto current = words.empty() ? "" : words.back();
  const auto known = typed(words);
  if (before == "--provider") {
    offerIdentifiers(qx::BundleKind::extension);
  } else if (before == "--consumer") {
    offerIdentifiers(qx::BundleKind::application);
  } else if (before == "--take") {
    offer("/files");
  } else if (before == "--timeout") {
    return success;
  } else if (current.starts_with('-')) {
    offerOptions(known.command);
  } else if (known.command) {
    offerArguments(*known.command, known.arguments);
  } else {
    offerCommands(known.group);
  }
  return success;
}

}  // namespace tool
