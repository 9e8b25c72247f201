#pragma once

#include <string>
#include <vector>

#include "platform/base/Result.h"
#include "platform/identity/Bundles.h"

namespace tool {

/// What an application wants of the world around its sandbox, beside its documents, by keys of its
/// Info.plist. What a key is not there for it does not get.
///
/// | Key | Value |
/// | --- | --- |
/// | QXSandboxWayland, QXSandboxX11 | true: the display |
/// | QXSandboxSound | true: what plays and records sound |
/// | QXSandboxNetwork | true: the network |
/// | QXSandboxSessionBusNames | array of the names on the session bus to which it may talk; one
///   that ends in ".*" stands for itself and all names below it |
struct World {
  bool wayland = false;
  bool x11 = false;
  bool sound = false;
  bool network = false;
  std::vector<std::string> busNames;

  /// Fails with a sentence where a key has a value of another kind.
  static qx::Result<World> wantedBy(const qx::Bundle& bundle);

  /// Each thing in a word or two, for people and programs: "Wayland", "bus:org.example.Name".
  std::vector<std::string> words() const;
};

/// What it means to give an application one of these words, a sentence.
std::string meaningOf(const std::string& word);

}  // namespace tool
