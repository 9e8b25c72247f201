#pragma once

#include <optional>
#include <string>

/// Where everything lives. DOCSOURCE_ROOT, when set, is the root, and the runtime directory is
/// "run" in it. Unset, root (the user) has /var/lib/docsource and /run/docsource, any other user
/// $XDG_DATA_HOME/docsource (default ~/.local/share/docsource) and $XDG_RUNTIME_DIR/docsource.
/// The environment is read once, on first use. No path ends in a slash.
namespace qx::Places {

const std::string& root();
const std::string& runtimeDirectory();
/// The value of DOCSOURCE_ROOT as this process got it.
const std::optional<std::string>& rootOverride();

std::string applications();     // <root>/Applications
std::string extensions();       // <root>/Extensions
std::string groupContainers();  // <root>/Containers/Group
std::string dataContainers();   // <root>/Containers/Data
/// The daemon's home directory.
std::string home();                                         // <root>/Home
std::string serviceSocket(const std::string& serviceName);  // <run>/<service name>
std::string notifications();                                // <run>/notify
std::string keyState();                                     // <run>/key-state
std::string sandboxKey();                                   // <run>/sandbox.key
/// The directory that sandboxed applications see as their runtime directory: it holds the services'
/// sockets and nothing else.
std::string sandboxServices();  // <run>/sandbox

/// Makes root and runtime directory with all that the daemons expect in them (Applications,
/// Extensions, Containers/Group, Home, notify, sandbox) where they are missing; the runtime
/// directory with mode 0700 for an ordinary user, 0755 for root. Returns the errno of the first
/// failure, or 0.
int prepare();

}  // namespace qx::Places
