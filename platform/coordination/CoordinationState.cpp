// Which mechanism of file coordination runs, for who wants to know.

#include "platform/coordination/CoordinationState.h"

#include <unistd.h>

#include <string>

#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx {
namespace {

constexpr CoordinationMechanism all[] = {CoordinationMechanism::access, CoordinationMechanism::open,
                                         CoordinationMechanism::cooperative};

std::string fileIn(const std::string& directory) { return directory + "/coordination"; }
std::string ownFile() { return fileIn(Places::serviceDirectory(fileCoordinationServiceName)); }

}  // namespace

std::string_view nameOf(CoordinationMechanism mechanism) {
  switch (mechanism) {
    case CoordinationMechanism::access:
      return "access";
    case CoordinationMechanism::open:
      return "open";
    case CoordinationMechanism::cooperative:
      break;
  }
  return "cooperative";
}

std::optional<CoordinationMechanism> readCoordinationMechanism() {
  for (const auto& directory : Places::serviceDirectories(fileCoordinationServiceName)) {
    const auto text = FileManager::readFile(fileIn(directory));
    if (!text) continue;
    for (const auto mechanism : all) {
      if (*text == std::string(nameOf(mechanism)) + "\n") return mechanism;
    }
  }
  return std::nullopt;
}

void withdrawCoordinationMechanism() { ::unlink(ownFile().c_str()); }

void announceCoordinationMechanism(CoordinationMechanism mechanism) {
  switch (mechanism) {
    case CoordinationMechanism::access:
      DS_LOG("[NOTICE] Every program is coordinated: accesses to content wait (FAN_PRE_ACCESS).");
      break;
    case CoordinationMechanism::open:
      DS_LOG("[NOTICE] Every program is coordinated: openings of files wait (FAN_OPEN_PERM).");
      break;
    case CoordinationMechanism::cooperative:
      DS_LOG("[NOTICE] Only programs that ask for it are coordinated.");
      break;
  }
  const auto path = ownFile();
  if (auto error = FileManager::replaceFile(path, std::string(nameOf(mechanism)) + "\n", 0644)) {
    DS_LOG("[ERROR] Cannot write %@. Error: %@", path, *error);
  }
}

}  // namespace qx
