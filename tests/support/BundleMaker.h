#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/base/Value.h"
#include "platform/files/Places.h"
#include "platform/plist/PropertyList.h"

namespace qx::test {

/// Replaces a property list the way an installer does.
inline void writeList(const std::string& path, const Value& value) {
  auto text = PropertyList::write(value);
  std::ofstream(path + ".new") << (text ? *text : "");
  std::filesystem::rename(path + ".new", path);
}

/// The Info.plist of an application.
inline Dictionary bundleInfo(const std::string& identifier, const std::string& executable) {
  return {{"QXBundleIdentifier", identifier}, {"QXBundleExecutable", executable}};
}

/// Makes a bundle whose executable "program" is a copy of `program`.
inline void makeBundle(const std::string& path, const std::string& identifier,
                       const std::string& program = "/bin/cat",
                       const Dictionary& entitlements = {}) {
  std::filesystem::create_directories(path);
  std::filesystem::copy_file(program, path + "/program");
  if (!entitlements.empty()) writeList(path + "/Entitlements.plist", entitlements);
  writeList(path + "/Info.plist", bundleInfo(identifier, "program"));
}

/// The program of the test itself.
inline std::string ownProgram() { return std::filesystem::read_symlink("/proc/self/exe"); }

/// Makes the test program itself an installed application with these entitlements, so that it is
/// the client of what it tests.
inline void beApplication(const std::string& identifier, const Dictionary& entitlements) {
  const auto path = Places::applications() + "/self.app";
  std::filesystem::create_directories(path);
  writeList(path + "/Entitlements.plist", entitlements);
  writeList(path + "/Info.plist", bundleInfo(identifier, ownProgram()));
}

/// Nobody any more.
inline void beNobody() { std::filesystem::remove_all(Places::applications() + "/self.app"); }

}  // namespace qx::test
