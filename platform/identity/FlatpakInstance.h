#pragma once

#include <optional>
#include <string>

#include "platform/identity/ProcessDirectory.h"

namespace qx {

/// The application as which Flatpak started a program.
///
/// Flatpak keeps a directory for each running instance, Places::flatpakInstances()/NUMBER. It
/// contains what bubblewrap told it of the sandbox (bwrapinfo.json, with the inode of the mount
/// namespace), and ".ref", on which the sandbox's first process holds a lock (fcntl(2)) for as long
/// as it lives. Flatpak writes it outside, before the application begins; in the sandbox it is
/// read-only. In the root of the sandbox is the file .flatpak-info (flatpak-metadata(5)), which
/// names the instance and the application.
///
/// That file alone proves nothing, because whoever makes a sandbox can put such a file into it. It
/// is believed only for a process in the mount namespace that a running instance was told to have,
/// and only when it is a plain file of the user's on a read-only mount and names that instance.
/// Nobody in a sandbox can make such a directory; what a user's programs outside of sandboxes do is
/// that user's affair. Nothing is looked up in the root of a process before its mount namespace was
/// found, because what lies there may never answer.
struct FlatpakApplication {
  std::string identifier;
  /// Whether root installed it for all users of the machine.
  bool isMachines = false;
};
/// Absent for any other process, and where it cannot be told. Blocks on the user's runtime
/// directory. Any thread may call it.
std::optional<FlatpakApplication> flatpakApplicationOf(const ProcessDirectory& process);

}  // namespace qx
