// What the shells' completion scripts ask: `docsource --complete WORD…`, the words that stand
// behind the program's name up to the one that is being typed. It knows the commands and their
// options from their own table, and identifiers, accounts and documents from where they are.

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

/// The option of that name that takes a value, of whatever command.
const OptionName* valueOption(const std::vector<OptionName>& options, const std::string& name) {
  const auto found = std::find_if(options.begin(), options.end(), [&](const OptionName& option) {
    return option.name == name && !option.value.empty();
  });
  return found == options.end() ? nullptr : &*found;
}

/// The command that the words begin with, options left out, and how many words come after it.
struct Typed {
  std::optional<CommandName> command;
  std::string group;
  std::size_t arguments = 0;
};
Typed typed(const Words& words, const std::vector<OptionName>& options) {
  Words plain;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const auto& word = words[i];
    if (!word.starts_with('-')) {
      plain.push_back(word);
    } else if (valueOption(options, word)) {
      ++i;
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

/// What can stand for the value of an option.
void offerValues(const OptionName& option) {
  if (option.name == "--provider") return offerIdentifiers(qx::BundleKind::extension);
  if (option.name == "--consumer") return offerIdentifiers(qx::BundleKind::application);
  if (option.value.starts_with("PATH") || option.value == "FILE") offer("/files");
}

void offerArguments(const CommandName& command, std::size_t before) {
  const std::string_view name = command.name, subject = command.subject ? command.subject : "";
  if (name == "run") {
    return before == 0 ? offerIdentifiers(qx::BundleKind::application) : offer("/files");
  }
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
  const auto options = optionNames();
  const auto known = typed(words, options);
  if (const auto* given = valueOption(options, before)) {
    offerValues(*given);
  } else if (current.starts_with('-')) {
    const std::string command = known.command ? known.command->name : "";
    for (const auto& option : options) {
      if (option.command == command) offer(option.name, option.description);
    }
  } else if (known.command) {
    offerArguments(*known.command, known.arguments);
  } else {
    offerCommands(known.group);
  }
  return success;
}

}  // namespace tool
