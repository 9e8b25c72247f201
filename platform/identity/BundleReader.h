#pragma once

#include <optional>
#include <string>

#include "platform/base/Result.h"
#include "platform/identity/Bundles.h"
#include "platform/identity/ProcessDirectory.h"

namespace qx {

/// What a look at a bundle directory found, whether or not it is a good bundle.
struct BundleInspection {
  Result<Bundle> bundle;
  /// QXBundleExecutable, as soon as Info.plist can be read that far.
  std::optional<std::string> declaredExecutable;
  /// The executable, when the bundle is good.
  std::optional<FileIdentity> executable;
  /// Whether links or an absolute path lead to the executable, so that it can become another file
  /// without a change in the bundle directory.
  bool executableIsOutside = false;
};

BundleInspection inspectBundle(BundleKind kind, const std::string& path);

/// The path to which QXBundleExecutable leads from the bundle directory.
std::string executablePath(const std::string& bundle, const std::string& declared);

}  // namespace qx
