// A provider extension that behaves as its bundle's Script.plist says, at this very call: well, or
// in one of the ways in which a provider can misbehave. It speaks over the wire by itself.
//
// Script.plist, looked at anew for every call:
//   items        dictionary: name of a document -> item identifier
//   launch       "exit": ends at once; "stubborn": ignores SIGTERM and the end of its conduit
//   <operation>  how calls of it are met: a text, or an array of texts for the first calls of it,
//                after which it is met well. See meet().
//
// What it saw is left in Records/<bundle identifier>/ under the root: <process number>.plist, made
// at launch, and "calls", one line a call.

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/base/Text.h"
#include "platform/plist/PropertyList.h"
#include "tests/support/Wire.h"

namespace {

using qx::Array;
using qx::Dictionary;
using qx::Error;
using qx::URL;
using qx::Value;

const Value absent;

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

const std::string records =
    variable("DOCSOURCE_ROOT") + "/Records/" + variable("QX_EXTENSION_IDENTIFIER");
const std::string storage = variable("QX_DOCUMENT_STORAGE");

Dictionary script() {
  auto list = qx::PropertyList::readFile("Script.plist");
  const auto* dictionary = list ? list->as<Dictionary>() : nullptr;
  return dictionary ? *dictionary : Dictionary();
}

std::string linkTarget(const std::string& path) {
  std::error_code failed;
  return std::filesystem::read_symlink(path, failed).string();
}

/// A line of /proc/self/status.
std::string status(const std::string& name) {
  std::ifstream file("/proc/self/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name + ":")) return line.substr(line.find_last_of(" \t") + 1);
  }
  return "";
}

void recordLaunch() {
  Dictionary environment;
  for (char** each = environ; *each; ++each) {
    const std::string text(*each);
    const auto equals = text.find('=');
    environment.insert_or_assign(text.substr(0, equals), text.substr(equals + 1));
  }
  Dictionary descriptors;
  std::vector<std::string> numbers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    numbers.push_back(entry.path().filename());
  }
  for (const auto& number : numbers) {
    auto target = linkTarget("/proc/self/fd/" + number);
    if (!target.empty()) descriptors.emplace(number, target);
  }
  const Dictionary record{{"environment", environment},
                          {"descriptors", descriptors},
                          {"blocked", status("SigBlk")},
                          {"ignored", status("SigIgn")},
                          {"directory", std::filesystem::current_path().string()},
                          {"executable", linkTarget("/proc/self/exe")},
                          {"parent", static_cast<std::int64_t>(getppid())}};
  std::filesystem::create_directories(records);
  const std::string path = records + "/" + std::to_string(getpid()) + ".plist";
  auto text = qx::PropertyList::write(record);
  std::ofstream(path + ".new") << (text ? *text : "");
  std::filesystem::rename(path + ".new", path);
}

/// How often an operation was called before, in this process and those before it.
std::size_t recordCall(const std::string& operation, const Value& argument) {
  std::size_t before = 0;
  {
    std::ifstream file(records + "/calls");
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with(operation + " ")) ++before;
    }
  }
  std::string text = operation + " " + qx::describe(argument);
  std::replace(text.begin(), text.end(), '\n', '|');
  std::ofstream(records + "/calls", std::ofstream::app) << text + "\n";
  return before;
}

std::string behaviour(const Dictionary& script, const std::string& operation, std::size_t before) {
  if (const auto* always = qx::find<std::string>(script, operation)) return *always;
  const auto* each = qx::find<Array>(script, operation);
  const auto* text = each && before < each->size() ? (*each)[before].as<std::string>() : nullptr;
  return text ? *text : "";
}

Error failure(const std::string& description) { return {"ScriptedProvider", 7, description}; }

void put(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

/// The document and identifier that an argument of a call means, either way.
struct Item {
  std::string path;
  std::string identifier;
};
std::optional<Item> itemOf(const Dictionary& script, const Value& argument) {
  const auto* items = qx::find<Dictionary>(script, "items");
  if (!items) return std::nullopt;
  for (const auto& [name, identifier] : *items) {
    Item item{storage + "/" + name, *identifier.as<std::string>()};
    const auto* url = argument.as<URL>();
    if (url ? url->path() == item.path : argument == Value(item.identifier)) return item;
  }
  return std::nullopt;
}

/// What a provider in its right mind does, and replies.
Array serve(const Dictionary& script, const std::string& operation, const Value& argument,
            const std::optional<Error>& error) {
  if (operation == "_performInitialSetupWithCompletion:") {
    if (error) return {absent, absent, *error};
    if (storage.empty()) return {absent, absent, absent};
    std::filesystem::create_directories(storage);
    if (const auto* items = qx::find<Dictionary>(script, "items")) {
      for (const auto& [name, identifier] : *items) {
        std::ofstream(storage + "/" + name, std::ofstream::app).close();
      }
    }
    return {"ready", URL::fileURL(storage, true), absent};
  }
  const auto item = itemOf(script, argument);
  const auto problem = error  ? error
                       : item ? std::nullopt
                              : std::optional<Error>(failure("There is no such item."));
  if (operation == "_identifierForItemAtURL:completion:") {
    return problem ? Array{*problem, absent} : Array{absent, item->identifier};
  }
  if (operation == "_URLForItemIdentifier:completion:") {
    return problem ? Array{*problem, absent} : Array{absent, URL::fileURL(item->path)};
  }
  if (operation == "_providePlaceholderAtURL:completion:") {
    if (problem) return {absent, *problem};
    const auto slash = item->path.rfind('/') + 1;
    auto placeholder = item->path.substr(0, slash) + "." + item->path.substr(slash);
    put(placeholder, "");
    return {URL::fileURL(placeholder), absent};
  }
  if (problem) return {*problem};
  if (operation == "_startProvidingItemAtURL:completion:") {
    put(item->path, "content of " + item->identifier);
  }
  if (operation == "_stopProvidingItemAtURL:completion:") put(item->path, "");
  return {absent};
}

/// Meets one call. False ends the program.
bool meet(qx::test::Wire& wire, const Array& call) {
  const Value& id = call[1];
  const auto* operation = call[2].as<std::string>();
  const auto* arguments = call[3].as<Array>();
  if (!operation || !arguments || call.size() != 5) return false;
  const Value& argument = arguments->empty() ? absent : arguments->front();
  const auto before = recordCall(*operation, argument);
  Dictionary now = script();
  std::string how = behaviour(now, *operation, before);
  // Until the script says otherwise, or the daemon ends this process.
  while (how == "hold") {
    poll(nullptr, 0, 5);
    now = script();
    how = behaviour(now, *operation, before);
  }
  const auto reply = [&] {
    const bool fails = how.starts_with("error");
    return serve(now, *operation, argument, fails ? std::optional(failure(how)) : std::nullopt);
  };

  if (how == "never") return true;
  if (how == "exit") return false;
  if (how == "crash") return raise(SIGKILL) == 0;
  if (how == "refuse") return wire.send({5, call[4]});
  if (how == "garbage") {
    constexpr std::array<std::uint8_t, 6> bytes{0, 0, 0, 2, 0xff, 0xff};
    return wire.sendBytes(bytes);
  }
  if (how == "wrong types") return wire.send({2, id, Array{Dictionary(), 17, true}});
  if (how == "wrong class") return wire.send({2, id, Array(reply().size(), Value(17))});
  if (how == "failure") return wire.send({3, id, failure("No answer.")});
  if (how == "absent") return wire.send({2, id, Array(reply().size())});
  if (how == "unknown id") wire.send({2, 1 << 30, reply()});
  if (how == "calls back") wire.send({1, 1, "nothing:", Array()});
  if (how == "twice") wire.send({2, id, reply()});
  return wire.send({2, id, reply()});
}

}  // namespace

int main() {
  recordLaunch();
  const Dictionary atLaunch = script();
  const auto* launch = qx::find<std::string>(atLaunch, "launch");
  if (launch && *launch == "exit") return 3;
  const bool stubborn = launch && *launch == "stubborn";
  if (stubborn) signal(SIGTERM, SIG_IGN);

  qx::test::Wire wire(qx::FileDescriptor(std::atoi(variable("QX_EXTENSION_CONNECTION").c_str())));
  // Requests may be far apart.
  wire.waitForever();
  for (;;) {
    const auto message = wire.receive();
    if (!message) break;
    const auto* kind = message->empty() ? nullptr : message->front().as<std::int64_t>();
    if (kind && *kind == 1 && message->size() >= 4 && !meet(wire, *message)) return 9;
  }
  if (stubborn) {
    for (;;) pause();
  }
  return 0;
}
