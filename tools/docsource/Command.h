#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "docsource/client.h"
#include "platform/base/Error.h"

/// The commands of the tool. Each is a function from the parsed command line to the exit status;
/// it prints its answer to standard output, as text or with --json as one JSON object, and what
/// went wrong to standard error. main.cpp has the table of them.
namespace tool {

enum ExitStatus : int {
  success = 0,
  /// The operation answered with an error, or not in time.
  operationFailed = 1,
  wrongUsage = 2,
  /// The service is away, or went away before it answered.
  serviceUnreachable = 3,
  /// The user gave it up, as a shell tells it.
  interrupted = 130,
};

/// The command line. A command finds filled in what the table says it takes.
struct Arguments {
  bool json = false;
  /// How long to wait for an answer that is due at once.
  std::chrono::milliseconds timeout{};
  /// For what may take any time; absent unless it was asked for.
  std::optional<std::chrono::milliseconds> givenTimeout;
  /// The one argument without a name: a URL or path, a string, a token, a bundle, an identifier.
  std::string subject;
  /// The one after it, for a command that takes two.
  std::string second;
  /// Instead of it, for a command that takes several.
  std::vector<std::string> subjects;
  std::string provider;
  std::string consumer;
  /// Directories themselves, instead of what is in them.
  bool directory = false;
  /// What is below a directory, too.
  bool recursive = false;
  /// Documents that are only here may go with their account.
  bool discard = false;
  /// What is gone on one side may go on the other.
  bool confirmDeletions = false;
  /// What a bundle wants of the world may be given to it without asking.
  bool yes = false;
  /// The version of a conflict that is to be taken; absent to list them.
  std::optional<std::string> take;
  /// Somebody logs in on a page of the server.
  bool login = false;
  /// Nothing is shown in the file manager.
  bool noOpen = false;
  /// The desktop is told of what happens or could not be done; of what fails after so long.
  bool notify = false;
  std::chrono::milliseconds patience = std::chrono::minutes(10);
  /// Of an account to be added, as its process will find them (extensions/account/Settings.h).
  std::map<std::string, std::string> settings;
  /// Of a program that is to be run.
  std::vector<std::string> documents;
  /// What stood behind "--", for the program that is to be run.
  std::vector<std::string> rest;
};

/// Of this tool: one sentence that says what is wrong and what to do about it.
docsource::Error complaint(const std::string& sentence);

/// Prints the error to standard error, with what to do next where that is known: as text, or with
/// --json as an object {"error": {"domain", "code", "text", "next"}}. The exit status that goes
/// with it.
int fail(const Arguments& arguments, const docsource::Error& error);
int fail(const Arguments& arguments, const qx::Error& error);
/// Of a command line that makes no sense; `next` says how it does.
int refuseUsage(bool json, const std::string& sentence, const std::string& next);

/// The socket of a service, for a person: the one that is there, else where one is looked for.
std::string socketOf(const std::string& service);

/// One command of the table, as completion needs it.
struct CommandName {
  /// "first second" is the command `second` of the group `first`.
  const char* name;
  /// What its arguments without a name are; null where there are none.
  const char* subject;
  const char* description;
};
const char* descriptionOfGroup(const std::string& group);
/// All of them, in the order of the table.
std::vector<CommandName> commandNames();
struct OptionName {
  /// Of the table; empty for one that stands before the command.
  std::string command;
  /// With its two dashes.
  std::string name;
  /// What its value is; empty where it takes none.
  std::string value;
  std::string description;
};
/// Those of all commands, and those that stand before the command.
std::vector<OptionName> optionNames();

/// What could stand where the last of the words stands, one candidate to a line, with a tab and a
/// description behind it; the word "/files" stands for the names of files, "/directories" for those
/// of directories. Asked for by the shells' completion scripts (docsource --complete WORD…).
int complete(const std::vector<std::string>& words);

// The broker's operations.
int wakeUp(const Arguments& arguments);
int providers(const Arguments& arguments);
int placeholder(const Arguments& arguments);
int start(const Arguments& arguments);
int stop(const Arguments& arguments);
int extendSandbox(const Arguments& arguments);
int extendBookmark(const Arguments& arguments);
int bookmark(const Arguments& arguments);
int resolve(const Arguments& arguments);

// Accounts.
int addFolder(const Arguments& arguments);
int addWebDAV(const Arguments& arguments);
int addS3(const Arguments& arguments);
int accounts(const Arguments& arguments);
int removeAccount(const Arguments& arguments);
int sync(const Arguments& arguments);

// How documents are, and whether their content is here.
int status(const Arguments& arguments);
int get(const Arguments& arguments);
int evict(const Arguments& arguments);
int pin(const Arguments& arguments);
int unpin(const Arguments& arguments);

// What is under way, and what came of it.
int transfers(const Arguments& arguments);
int cancel(const Arguments& arguments);
int conflicts(const Arguments& arguments);
/// Tells what happens, as it happens, until it is ended.
int watch(const Arguments& arguments);

// Documents, copied to standard output.
int consume(const Arguments& arguments);
int read(const Arguments& arguments);

// The grants: of the broker where it runs, else, to look at, as they stand in their file.
int grants(const Arguments& arguments);
int revoke(const Arguments& arguments);

// Administration, on the files of this root.
int install(const Arguments& arguments);
int uninstall(const Arguments& arguments);
int bundles(const Arguments& arguments);
int deviceStatus(const Arguments& arguments);
int deviceLock(const Arguments& arguments);
int deviceUnlock(const Arguments& arguments);

/// Looks at everything that can be wrong and says it in a sentence each; fails when something is.
int doctor(const Arguments& arguments);

/// When the application was started its exit status is this program's.
int run(const Arguments& arguments);

}  // namespace tool
