// What a command says when it fails: what happened, to what, and what to do next; with --json as
// one object on standard error.

#include <cstdio>
#include <filesystem>

#include "docsource/remote.h"
#include "platform/files/Places.h"
#include "sdk/src/Bridge.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

constexpr std::string_view toolErrorDomain = "DocSourceToolErrorDomain";
constexpr std::string_view brokerService = "com.veltro.DocSource";

/// The service that an error of the library names in its description, where it names one.
std::string serviceIn(const std::string& description) {
  for (const char* name : {"com.veltro.FileCoordination", "com.veltro.Sandbox"}) {
    if (description.find(name) != std::string::npos) return name;
  }
  return std::string(brokerService);
}

/// What to do about an error that the user can do something about; empty for the others.
std::string nextStep(const docsource::Error& error) {
  if (error.domain() == toolErrorDomain) return {};
  if (error.is(docsource::LibraryError::serviceUnavailable) &&
      error.description().find("The service ") == 0) {
    const auto service = serviceIn(error.description());
    const bool isPlatform = qx::Places::isOfPlatform(service);
    return "Its socket is " + socketOf(service) + ". Does " +
           (isPlatform ? "platformd" : "docsourced") + " run? To see: docsource doctor; under " +
           "systemd it is started by: systemctl " +
           (isPlatform ? "start platformd.service" : "--user start docsourced.service");
  }
  if (error.isConnectionFailure()) return "To see what is wrong: docsource doctor";
  if (error.is(docsource::daemonErrorDomain, 6)) {
    return "This program's bundle must have it; docsource bundles lists the bundles, and docsource "
           "doctor says what is wrong with them";
  }
  if (error.domain() != docsource::daemonErrorDomain) return {};
  switch (error.code()) {
    case 1:
    case 2:
    case 7:
      return "docsource providers lists the providers and where their documents are";
    case 3:
      return "docsource grants lists what was granted to whom";
    case 5:
      return "docsource bookmark prints the string of a document";
    case 8:
      return "What the provider said is in the log: journalctl --user -t docsourced";
    default:
      return {};
  }
}

/// Errors of files, remotes and the library say all in words; the numbers of the others are looked
/// up.
bool needsNoNumber(std::string_view domain) {
  return domain == toolErrorDomain || domain == docsource::posixErrorDomain ||
         domain == docsource::standardErrorDomain || domain == docsource::libraryErrorDomain ||
         domain == docsource::remoteErrorDomain;
}

/// For a person.
std::string sentenceOf(const docsource::Error& error) {
  if (!needsNoNumber(error.domain())) return error.text();
  const auto* cause = error.underlying();
  return error.description() + (cause ? " (" + sentenceOf(*cause) + ")" : "");
}

void printFailure(bool json, const qx::Error& error, const std::string& sentence,
                  const std::string& next) {
  if (json) {
    qx::Dictionary object{{"domain", error.domain()}, {"code", error.code()}, {"text", sentence}};
    if (!next.empty()) object.emplace("next", next);
    std::fprintf(stderr, "%s\n", toJSON(qx::Dictionary{{"error", std::move(object)}}).c_str());
  } else {
    std::fprintf(stderr, "%s\n", onOneLine(inFamiliarWords(sentence)).c_str());
    if (!next.empty()) std::fprintf(stderr, "%s.\n", onOneLine(next).c_str());
  }
}

}  // namespace

docsource::Error complaint(const std::string& sentence) {
  return {std::string(toolErrorDomain), 1, sentence + "."};
}

std::string socketOf(const std::string& service) {
  std::string all;
  for (const auto& directory : qx::Places::serviceDirectories(service)) {
    auto socket = directory;
    socket.append("/").append(service);
    std::error_code failed;
    if (std::filesystem::is_socket(socket, failed)) return socket;
    all += (all.empty() ? "" : " or ") + std::move(socket);
  }
  return all;
}

int fail(const Arguments& arguments, const docsource::Error& error) {
  const bool isOwn = error.domain() == toolErrorDomain;
  std::string text = !arguments.json ? sentenceOf(error)
                     : isOwn         ? error.description()
                                     : error.text();
  if (error.is(docsource::LibraryError::timedOut)) {
    text += " (waited " + std::to_string(arguments.timeout.count()) + " ms, --timeout)";
  }
  printFailure(arguments.json, docsource::bridge::toPlatform(error), text, nextStep(error));
  return error.isConnectionFailure() ? serviceUnreachable : operationFailed;
}

int fail(const Arguments& arguments, const qx::Error& error) {
  return fail(arguments, docsource::bridge::fromPlatform(error));
}

int refuseUsage(bool json, const std::string& sentence, const std::string& next) {
  const qx::Error error(std::string(toolErrorDomain), wrongUsage, sentence);
  printFailure(json, error, sentence, next);
  return wrongUsage;
}

}  // namespace tool
