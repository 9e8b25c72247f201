#pragma once

#include <sys/types.h>

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
/// take the places of the last three, and the bundles that come with the programs count after those
/// in "lib". DOCSOURCE_ROOT makes a world of its own for one user: it is
/// the root, the runtime directory is "run" in it, and of the machine only the bundles count,
/// unless DOCSOURCE_MACHINE is set too.
///
/// The environment is read once, on first use. No path ends in a slash.
namespace qx::Places {

const std::string& root();
const std::string& runtimeDirectory();
/// The value of DOCSOURCE_ROOT as this process received it.
const std::optional<std::string>& rootOverride();
/// The value of DOCSOURCE_MACHINE as this process received it.
const std::optional<std::string>& machineOverride();

/// Absent in a world of its own.
const std::optional<std::string>& machineRuntimeDirectory();
const std::optional<std::string>& machineState();
/// Each holds Applications and Extensions of the machine. When there are two, what is in the first
/// goes before what is in the second. Programs that stand in libexec/docsource, and not in bin,
/// find them too.
const std::vector<std::string>& machineBundles();

/// Whom a platformd serves as which this process runs: everybody when it is root and DOCSOURCE_ROOT
/// makes no world of its own; otherwise the user as whom it runs or, for root, the owner of the
/// runtime directory.
bool servesMachine();
/// The owner of the user's runtime directory or, while it does not exist, of the directory in which
/// it will be made.
struct Owner {
  uid_t user = 0;
  gid_t group = 0;
};
Owner runtimeOwner();
/// An existing directory on the file system on which this process's documents most likely are: the
/// machine's state, or the part of the root's path that exists.
std::string documentsFileSystem();

std::string applications();     // <root>/Applications
std::string extensions();       // <root>/Extensions
std::string groupContainers();  // <root>/Containers/Group
std::string dataContainers();   // <root>/Containers/Data
/// What each application that is run in a sandbox sees of documents.
std::string documentViews();  // <root>/Containers/Views
/// The daemon's home directory.
std::string home();        // <root>/Home
std::string sandboxKey();  // <run>/sandbox.key

/// Returns whether platformd serves it, for a user or for all of them.
bool isOfPlatform(const std::string& serviceName);
/// Returns whether the service is for sandboxed applications too. They see the socket of no other
/// service: an account's is called as the account is.
bool isForSandboxes(const std::string& serviceName);
/// The runtime directories in which a service is looked for, in this order: the user's only, and
/// for a service of platformd the machine's after it.
std::vector<std::string> serviceDirectories(const std::string& serviceName);
/// The one of them in which this process would serve it.
const std::string& serviceDirectory(const std::string& serviceName);
std::string serviceSocket(const std::string& serviceName);  // <service directory>/<service name>
/// Those of the machine where it has a runtime directory at this moment, otherwise the user's.
std::string notifications();  // <run>/notify
std::string keyState();       // <run>/key-state
/// The directory that sandboxed applications see as their runtime directory: it holds the sockets
/// of the user's services and nothing else.
std::string sandboxServices();  // <run>/sandbox
/// Which application each running sandbox is.
std::string sandboxRecords();  // <run>/sandboxes
/// The directory in which Flatpak has a directory for each of the user's instances that run.
const std::string& flatpakInstances();  // $XDG_RUNTIME_DIR/.flatpak

/// Makes what is missing of the user's root and runtime directory with all that the daemon expects
/// in them (Applications, Extensions, Containers/Group, Home, notify, sandbox). The runtime
/// directory gets mode 0700 in any case. Returns the errno of the first failure, or 0.
int prepare();
/// Does the same for the runtime directory only; a root that is missing is made with nothing else
/// in it. That is what a platformd needs that serves one user.
int prepareRuntime();
/// Makes the machine's runtime directory (mode 0755, with notify) and its state (0700).
int prepareMachine();

}  // namespace qx::Places
