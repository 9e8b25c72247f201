#pragma once

#include <optional>
#include <string>
#include <vector>

/// Where everything lives: a user's root and runtime directory, and what the machine has for all
/// its users.
///
/// | | unless a variable says otherwise |
/// | --- | --- |
/// | a user's root | $XDG_DATA_HOME/docsource (default ~/.local/share/docsource) |
/// | a user's runtime directory | $XDG_RUNTIME_DIR/docsource (default /run/user/UID/docsource) |
/// | the machine's runtime directory | /run/docsource |
/// | the machine's state | /var/lib/docsource |
/// | bundles that come with the programs | lib/docsource beside the bin of this program |
///
/// DOCSOURCE_MACHINE names a directory that stands for the machine: "run", "state" and "lib" in it
/// take the places of the last three. DOCSOURCE_ROOT makes a world of its own for one user: it is
/// the root, the runtime directory is "run" in it, and of the machine only the bundles count,
/// unless DOCSOURCE_MACHINE is set too.
///
/// The environment is read once, on first use. No path ends in a slash.
namespace qx::Places {

const std::string& root();
const std::string& runtimeDirectory();
/// The value of DOCSOURCE_ROOT as this process got it.
const std::optional<std::string>& rootOverride();
/// The same of DOCSOURCE_MACHINE.
const std::optional<std::string>& machineOverride();

/// Absent in a world of its own.
const std::optional<std::string>& machineRuntimeDirectory();
const std::optional<std::string>& machineState();
/// Holds the machine's Applications and Extensions. Programs that stand in libexec/docsource, and
/// not in bin, find it too.
const std::string& machineBundles();

/// Whom platformd serves when this process is it: everybody, as root outside of a world of its own;
/// else the user that it runs as.
bool servesMachine();

std::string applications();     // <root>/Applications
std::string extensions();       // <root>/Extensions
std::string groupContainers();  // <root>/Containers/Group
std::string dataContainers();   // <root>/Containers/Data
/// The daemon's home directory.
std::string home();                                         // <root>/Home
std::string serviceSocket(const std::string& serviceName);  // <run>/<service name>, the user's
std::string sandboxKey();                                   // <run>/sandbox.key
/// The machine's where it has a runtime directory at this moment, otherwise the user's.
std::string notifications();  // <run>/notify
std::string keyState();       // <run>/key-state
/// The directory that sandboxed applications see as their runtime directory: it holds the services'
/// sockets and nothing else.
std::string sandboxServices();  // <run>/sandbox
/// Which application each running sandbox is.
std::string sandboxRecords();  // <run>/sandboxes

/// Makes the user's root and runtime directory with all that the daemon expects in them
/// (Applications, Extensions, Containers/Group, Home, notify, sandbox) where they are missing, the
/// runtime directory with mode 0700. Returns the errno of the first failure, or 0.
int prepare();
/// Makes the machine's runtime directory (mode 0755, with notify) and its state (0700).
int prepareMachine();

}  // namespace qx::Places
