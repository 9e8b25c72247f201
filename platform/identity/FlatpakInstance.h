#pragma once

#include <optional>
#include <string>

#include "platform/identity/ProcessDirectory.h"

namespace qx {

/// Which application a program runs as that Flatpak started.
///
/// Flatpak keeps a directory for each instance that runs, Places::flatpakInstances()/NUMBER: what
/// bubblewrap told it of the sandbox (bwrapinfo.json, with the inode of the mount namespace), and
/// ".ref", on which the sandbox's first process holds a lock (fcntl(2)) for as long as it lives.
/// Flatpak writes it outside, before the application begins; in the sandbox it is read-only. In the
/// root of the sandbox is the file .flatpak-info (flatpak-metadata(5)), which names the instance
/// and the application.
///
/// The file alone says nothing: whoever makes a sandbox, in a sandbox or out of one, can put such a
/// file into it. It is believed of a process in the mount namespace that a running instance was
/// told to have, where it is a plain file of the user's on a read-only mount and names that
/// instance. Nobody in a sandbox can make such a directory; what a user's programs outside of one
/// do is that user's affair. Nothing is looked up in the root of a process before its mount
/// namespace was found: what lies there may never answer.
struct FlatpakApplication {
  std::string identifier;
  /// Installed for all users of the machine, by root.
  bool isMachines = false;
};
/// Absent for any other process, and where it cannot be told. Blocks on the user's runtime
/// directory. Any thread.
std::optional<FlatpakApplication> flatpakApplicationOf(const ProcessDirectory& process);

}  // namespace qx
