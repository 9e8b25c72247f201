#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Result.h"
#include "platform/identity/Bundles.h"

/// Puts bundles into the folders of this root and takes them away, each in one step: whoever looks
/// into the folder finds the old bundle, the new one or none, never half of one. Two installers at
/// a time do each other no harm.
namespace tool {

struct Installation {
  qx::Bundle bundle;
  /// Whether there was one before in its place.
  bool replaced = false;
};

/// Copies the bundle directory into the folder of its kind, links as links, and synced to the disk
/// before it appears. It takes the place of the installed bundle of the same identifier, under that
/// one's name, or of what lies broken under its own name. A broken bundle is refused before
/// anything is touched, and so is one whose name belongs to a bundle of another identifier, or
/// whose identifier to a bundle of the machine.
///
/// `mayBe` is asked once, about the very bundle that is to appear and the one that it replaces,
/// null where there is none; what it answers stands in the way.
using MayBe = std::function<std::optional<qx::Error>(const qx::Bundle&, const qx::Bundle* before)>;
qx::Result<Installation> installBundle(const std::string& source, const MayBe& mayBe = {});

/// Takes away every installed bundle of that identifier, broken ones too; returns where they were.
/// Fails when there is none.
qx::Result<std::vector<std::string>> uninstallBundles(const std::string& identifier);

/// What lies in the folder of a kind: a bundle or what is wrong with it.
struct InstalledBundle {
  std::string path;
  qx::Result<qx::Bundle> bundle;
  /// What its Info.plist says, of a broken one too where that can be read; otherwise empty.
  qx::Dictionary info;

  std::string identifier() const;
};
/// In byte order of the directories' names.
std::vector<InstalledBundle> installedBundles(qx::BundleKind kind, qx::BundleStanding standing);

/// Why the program of a bundle that is there cannot be started, one sentence; absent when it can,
/// as far as that is to be seen without starting it.
std::optional<std::string> problemOfStarting(const qx::Bundle& bundle);

}  // namespace tool
