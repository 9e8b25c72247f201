#pragma once

#include <string>

#include "platform/files/Places.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/SelfProvider.h"

namespace qx::test {

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
