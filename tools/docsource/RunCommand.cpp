// Runs an installed application under bubblewrap (bwrap(1)), in namespaces of its own: it sees the
// system's directories, its bundle, its own data directory and the sockets of the services, and
// nothing else of this machine.
//
// What is not to be seen is not put in, rather than hidden: of the runtime directory the
// application gets the directory that holds the sockets and never held a secret. The one thing that
// is covered is the root, which may lie within a directory of the system.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/base/Result.h"
#include "platform/conduit/ServiceSocket.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/identity/Bundles.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/SandboxProcess.h"

namespace tool {
namespace {

namespace fs = std::filesystem;
using qx::Error;
using qx::Result;

constexpr const char* sandboxProgram = "bwrap";
constexpr std::array services{"com.veltro.DocSource", "com.veltro.FileCoordination",
                              "com.veltro.Sandbox"};

/// What stands for the machine in a sandbox; its services are in "run" there.
constexpr const char* machineInside = "/run/docsource";

/// What programs need of /etc to find libraries, names, fonts and certificates.
constexpr std::array configuration{
    "alternatives",    "bash.bashrc", "ca-certificates", "ca-certificates.conf",
    "debian_version",  "fonts",       "group",           "hosts",
    "inputrc",         "ld.so.cache", "ld.so.conf",      "ld.so.conf.d",
    "locale.alias",    "locale.conf", "localtime",       "mime.types",
    "nsswitch.conf",   "os-release",  "passwd",          "pki",
    "profile",         "protocols",   "services",        "ssl/certs",
    "ssl/openssl.cnf", "terminfo",    "timezone",        "xdg"};

/// Variables that are passed on; what begins with "LC_" is as well.
constexpr std::array passedVariables{"LANG", "LANGUAGE", "TERM",    "COLORTERM",
                                     "TZ",   "USER",     "LOGNAME", "DOCSOURCE_LOG"};

Error refusal(const std::string& what) {
  return {std::string(QXStandardErrorDomain), qx::fileUnknownError, what};
}

Result<std::string> resolved(const std::string& path) {
  std::array<char, PATH_MAX> buffer{};
  if (!::realpath(path.c_str(), buffer.data())) {
    return qx::fileError(errno, qx::URL::fileURL(path));
  }
  return std::string(buffer.data());
}

bool isWithin(const std::string& path, const std::string& directory) {
  return path == directory || path.starts_with(directory + "/");
}

/// A program that PATH leads to.
std::optional<std::string> find(const std::string& program) {
  const char* variable = std::getenv("PATH");
  std::string paths = variable ? variable : "/usr/local/bin:/usr/bin:/bin";
  for (std::size_t begin = 0; begin <= paths.size();) {
    const auto end = std::min(paths.find(':', begin), paths.size());
    const auto path = paths.substr(begin, end - begin) + "/" + program;
    if (path.starts_with('/') && ::access(path.c_str(), X_OK) == 0) return path;
    begin = end + 1;
  }
  return std::nullopt;
}

/// The application's data directory, made when it is not there. No link is followed to it.
Result<std::string> dataContainer(const std::string& identifier) {
  if (identifier.find('/') != std::string::npos || identifier == "." || identifier == "..") {
    return refusal("An application called " + identifier + " can have no data directory.");
  }
  if (auto error = qx::FileManager::createDirectory(qx::Places::dataContainers())) return *error;
  const auto containers = resolved(qx::Places::dataContainers());
  if (!containers) return containers.error();
  const std::string path = *containers + "/" + identifier;
  struct stat status;
  if ((::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) ||
      ::lstat(path.c_str(), &status) != 0) {
    return qx::fileError(errno, qx::URL::fileURL(path));
  }
  if (!S_ISDIR(status.st_mode)) return refusal(path + " is not a directory.");
  return path;
}

/// All that is bound into the sandbox, with links resolved.
struct Contents {
  std::string root;
  std::string bundle;
  std::string executable;
  std::string data;
  std::string sockets;
  /// Absent where the machine has no services.
  std::optional<std::string> machine;
};

Result<Contents> contentsFor(const qx::Bundle& bundle) {
  // Whatever is missing there and is needed is noticed below.
  (void)qx::Places::prepare();
  for (const char* service : services) (void)qx::offerServiceSocketToSandboxes(service);
  auto root = resolved(qx::Places::root());
  auto place = resolved(bundle.path);
  auto executable = resolved(bundle.executable);
  auto data = dataContainer(bundle.identifier);
  auto sockets = resolved(qx::Places::sandboxServices());
  for (const auto* one : {&root, &place, &executable, &data, &sockets}) {
    if (!*one) return one->error();
  }
  if (*root == "/") return refusal("The root directory / cannot be kept out of a sandbox.");
  // There is nothing in the machine's that its users may not see.
  std::optional<std::string> machine;
  if (const auto& directory = qx::Places::machineRuntimeDirectory()) {
    if (auto resolvedOne = resolved(*directory)) machine = std::move(*resolvedOne);
  }
  return Contents{*root, *place, *executable, *data, *sockets, std::move(machine)};
}

std::map<std::string, std::string> environmentFor(const Contents& contents,
                                                  const std::string& privateRuntime) {
  std::map<std::string, std::string> variables;
  for (const char* name : passedVariables) {
    if (const char* value = std::getenv(name)) variables[name] = value;
  }
  for (char** each = environ; *each; ++each) {
    const std::string text(*each);
    const auto equals = text.find('=');
    if (text.starts_with("LC_") && equals != std::string::npos) {
      variables[text.substr(0, equals)] = text.substr(equals + 1);
    }
  }
  variables["PATH"] = "/usr/local/bin:/usr/bin:/bin";
  variables["HOME"] = contents.data;
  variables["XDG_DATA_HOME"] = contents.data + "/.local/share";
  variables["XDG_STATE_HOME"] = contents.data + "/.local/state";
  variables["XDG_CONFIG_HOME"] = contents.data + "/.config";
  variables["XDG_CACHE_HOME"] = contents.data + "/.cache";
  variables["XDG_RUNTIME_DIR"] = privateRuntime;
  variables["TMPDIR"] = "/tmp";
  variables["DOCSOURCE_ROOT"] = contents.root;
  if (contents.machine) variables["DOCSOURCE_MACHINE"] = machineInside;
  return variables;
}

/// Bubblewrap's arguments; it carries them out in their order.
std::vector<std::string> argumentsFor(const Contents& contents, const std::string& privateRuntime,
                                      const std::vector<std::string>& applicationArguments) {
  std::vector<std::string> all;
  auto add = [&all](std::initializer_list<std::string> some) {
    all.insert(all.end(), some.begin(), some.end());
  };
  add({"--unshare-user", "--disable-userns", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
       "--unshare-net", "--unshare-cgroup-try", "--hostname", "sandbox", "--cap-drop", "ALL",
       "--new-session"});
  add({"--ro-bind", "/usr", "/usr"});
  for (const char* name : {"bin", "sbin", "lib", "lib32", "lib64", "libx32"}) {
    const std::string path = std::string("/") + name;
    std::error_code failed;
    if (const auto target = fs::read_symlink(path, failed); !failed) {
      add({"--symlink", target.string(), path});
    } else {
      add({"--ro-bind-try", path, path});
    }
  }
  for (const char* name : configuration) {
    const std::string path = std::string("/etc/") + name;
    add({"--ro-bind-try", path, path});
  }
  // Root's application needs no capability to change the system's settings through /proc, so that
  // is read-only. The user's keys are no namespace's.
  add({"--proc", "/proc"});
  for (const char* keys : {"/proc/keys", "/proc/key-users"}) {
    add({"--ro-bind-try", "/dev/null", keys});
  }
  add({"--remount-ro", "/proc", "--dev", "/dev", "--tmpfs", "/tmp", "--perms", "0700", "--tmpfs",
       privateRuntime});
  add({"--tmpfs", contents.root});
  add({"--ro-bind", contents.bundle, contents.bundle});
  if (!isWithin(contents.executable, contents.bundle)) {
    add({"--ro-bind", contents.executable, contents.executable});
  }
  add({"--bind", contents.data, contents.data});
  add({"--ro-bind", contents.sockets, contents.root + "/run"});
  if (contents.machine) {
    add({"--ro-bind", *contents.machine, std::string(machineInside) + "/run"});
  }
  add({"--remount-ro", contents.root, "--remount-ro", "/", "--chdir", contents.data, "--",
       contents.executable});
  all.insert(all.end(), applicationArguments.begin(), applicationArguments.end());
  return all;
}

}  // namespace

int run(const Arguments& arguments) {
  const auto bundle =
      qx::BundleCatalog::shared().bundle(qx::BundleKind::application, arguments.subject);
  if (!bundle) {
    return fail(arguments, refusal("There is no application " + arguments.subject + "."));
  }
  const auto program = find(sandboxProgram);
  if (!program) {
    return fail(arguments,
                refusal(std::string("Applications are run under bubblewrap, but there is no ") +
                        sandboxProgram + " on this machine."));
  }
  const auto contents = contentsFor(*bundle);
  if (!contents) return fail(arguments, contents.error());

  const std::string privateRuntime = "/run/user/" + std::to_string(::getuid());
  // Bubblewrap's own environment can be read inside too, so it is the application's already.
  std::vector<std::string> variables;
  for (const auto& [name, value] : environmentFor(*contents, privateRuntime)) {
    variables.push_back(name);
    variables.back().append("=").append(value);
  }
  const auto ended =
      runSandbox(*program, bundle->identifier,
                 argumentsFor(*contents, privateRuntime, arguments.rest), std::move(variables));
  return ended ? *ended : fail(arguments, ended.error());
}

}  // namespace tool
