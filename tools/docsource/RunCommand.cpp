// Runs an installed application under bubblewrap (bwrap(1)), in namespaces of its own: it sees the
// system's directories, its bundle, its own data directory and the sockets of the services, and
// nothing else of this machine.
//
// In the place of the documents it has its view of them (platform/views), in which the broker shows
// those that it was granted: the ones that are named here before it begins, others while it runs.
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
#include <set>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/base/Result.h"
#include "platform/conduit/ServiceSocket.h"
#include "platform/coordination/CoordinationState.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/identity/Bundles.h"
#include "platform/views/DocumentView.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/OpenedWorld.h"
#include "tools/docsource/SandboxProcess.h"
#include "tools/docsource/World.h"

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
    "alternatives",   "ImageMagick-6", "bash.bashrc",  "ca-certificates", "ca-certificates.conf",
    "debian_version", "fonts",         "group",        "hosts",           "inputrc",
    "libreoffice",    "nanorc",        "vim",          "gtk-3.0",         "ld.so.cache",
    "ld.so.conf",     "ld.so.conf.d",  "locale.alias", "locale.conf",     "localtime",
    "mime.types",     "nsswitch.conf", "os-release",   "passwd",          "pki",
    "profile",        "protocols",     "services",     "ssl/certs",       "ssl/openssl.cnf",
    "terminfo",       "timezone",      "xdg"};

/// Variables that are passed on; what begins with "LC_" is as well.
constexpr std::array passedVariables{"LANG", "LANGUAGE", "TERM",    "COLORTERM",
                                     "TZ",   "USER",     "LOGNAME", "DOCSOURCE_LOG"};

constexpr std::array systemDirectories{"/bin",   "/dev",    "/etc",  "/lib",  "/lib32",
                                       "/lib64", "/libx32", "/proc", "/sbin", "/usr"};

Error refusal(const std::string& what) {
  return {std::string(QXStandardErrorDomain), qx::fileUnknownError, what};
}

Result<std::string> resolved(const std::string& path) {
  std::array<char, PATH_MAX> buffer{};
  if (!::realpath(path.c_str(), buffer.data())) {
    return qx::fileError(errno, qx::URL::fileURL(absolutePath(path)));
  }
  return std::string(buffer.data());
}

std::optional<std::string> whereIs(const std::string& path) {
  auto found = resolved(path);
  return found ? std::optional(*std::move(found)) : std::nullopt;
}

bool isWithin(const std::string& path, const std::string& directory) {
  return path == directory || path.starts_with(directory + "/");
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
  /// What the application sees of documents, and where.
  std::string view;
  std::string groups;
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
  if (auto error = qx::DocumentView::make(bundle.identifier)) return *error;
  auto view = resolved(qx::DocumentView::shownDirectory(bundle.identifier));
  auto groups = resolved(qx::Places::groupContainers());
  for (const auto* one : {&root, &place, &executable, &data, &sockets, &view, &groups}) {
    if (!*one) return one->error();
  }
  if (*root == "/") return refusal("The root directory / cannot be kept out of a sandbox.");
  // There is nothing in the machine's that its users may not see.
  std::optional<std::string> machine;
  if (const auto& directory = qx::Places::machineRuntimeDirectory()) {
    if (auto resolvedOne = resolved(*directory)) machine = std::move(*resolvedOne);
  }
  return Contents{*root, *place, *executable, *data, *sockets, std::move(machine), *view, *groups};
}

/// The documents that are named on the command line: where they are, without links, and the links
/// that lead there from the paths that were given.
struct NamedDocuments {
  std::set<std::string> paths;
  std::map<std::string, std::string> links;
  /// The exit status where one of them is no document, or is not granted.
  std::optional<int> failed;
};

/// The first link on an absolute path.
std::optional<std::string> firstLink(const std::string& path) {
  std::error_code failed;
  for (auto end = path.find('/', 1);; end = path.find('/', end + 1)) {
    auto above = path.substr(0, end);
    if (fs::is_symlink(above, failed)) return above;
    if (end == std::string::npos) return std::nullopt;
  }
}

/// Has the broker grant a document, and sees to it that it is shown.
std::optional<docsource::Error> grant(docsource::Client& client, const std::string& path,
                                      const std::string& application) {
  const auto url = docsource::fileURL(path);
  const auto mechanism = qx::readCoordinationMechanism();
  if (!mechanism || *mechanism == qx::CoordinationMechanism::cooperative) {
    // Nobody brings its content in when it is read.
    if (auto read = client.coordinateReading(url); !read) return read.error();
  }
  if (auto granted = client.extendBookmark(url, application); !granted) return granted.error();
  const auto document = qx::DocumentView::documentAt(path);
  const auto view = document ? qx::DocumentView::open(application) : std::nullopt;
  const auto shown = view ? view->shown(*document) : std::nullopt;
  struct stat status;
  if (shown && ::stat(path.c_str(), &status) == 0 &&
      qx::identityOf(status) == qx::identityOf(*shown)) {
    return std::nullopt;
  }
  return complaint(path +
                   " cannot be shown in a sandbox: that takes a document on the file system "
                   "of " +
                   qx::Places::root() + ", and a broker that knows how");
}

NamedDocuments grantAll(const Arguments& arguments, const std::string& application) {
  NamedDocuments all;
  docsource::Client client(arguments.timeout);
  for (const auto& each : arguments.documents) {
    const auto path = resolved(each);
    if (!path) {
      all.failed = fail(arguments, path.error());
      break;
    }
    if (const auto error = grant(client, *path, application)) {
      all.failed = fail(arguments, *error);
      break;
    }
    all.paths.insert(*path);
    if (const auto link = firstLink(absolutePath(each))) {
      if (const auto target = resolved(*link)) all.links[*link] = *target;
    }
  }
  return all;
}

std::map<std::string, std::string> environmentFor(const Contents& contents,
                                                  const std::string& privateRuntime,
                                                  const OpenedWorld& world) {
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
  for (const auto& [name, value] : world.variables()) variables[name] = value;
  return variables;
}

/// Whether there is something else at a path in every sandbox.
bool isOfTheSystem(const std::string& path) {
  return std::any_of(systemDirectories.begin(), systemDirectories.end(),
                     [&](const char* directory) { return isWithin(path, directory); });
}

/// Bubblewrap's arguments; it carries them out in their order.
std::vector<std::string> argumentsFor(const Contents& contents, const std::string& privateRuntime,
                                      const OpenedWorld& world, const NamedDocuments& documents,
                                      const std::vector<std::string>& applicationArguments) {
  std::vector<std::string> all;
  auto add = [&all](std::initializer_list<std::string> some) {
    all.insert(all.end(), some.begin(), some.end());
  };
  add({"--unshare-user", "--disable-userns", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
       "--unshare-cgroup-try", "--hostname", "sandbox", "--cap-drop", "ALL", "--new-session"});
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
  all.insert(all.end(), world.arguments().begin(), world.arguments().end());
  add({"--tmpfs", contents.root});
  add({"--ro-bind", contents.bundle, contents.bundle});
  if (!isWithin(contents.executable, contents.bundle)) {
    add({"--ro-bind", contents.executable, contents.executable});
  }
  add({"--bind", contents.data, contents.data});
  add({"--bind", contents.view, contents.groups});
  add({"--ro-bind", contents.sockets, contents.root + "/run"});
  if (contents.machine) {
    add({"--ro-bind", *contents.machine, std::string(machineInside) + "/run"});
  }
  for (const auto& [link, target] : documents.links) {
    const bool isTaken = isWithin(link, contents.root) || isOfTheSystem(link);
    if (!isTaken) add({"--symlink", target, link});
  }
  add({"--remount-ro", contents.root, "--remount-ro", "/", "--chdir", contents.data, "--",
       contents.executable});
  // A path that leads to a document from here leads there from the application's directory too.
  for (const auto& argument : applicationArguments) {
    const auto path = documents.paths.empty() ? std::nullopt : whereIs(argument);
    all.push_back(path && documents.paths.contains(*path) ? *path : argument);
  }
  return all;
}

}  // namespace

int run(const Arguments& arguments) {
  const auto bundle =
      qx::BundleCatalog::shared().bundle(qx::BundleKind::application, arguments.subject);
  if (!bundle) {
    return fail(arguments, refusal("There is no application " + arguments.subject +
                                   " (docsource bundles lists those that there are)."));
  }
  const auto world = World::wantedBy(*bundle);
  if (!world) return fail(arguments, world.error());
  const auto program = programCalled(sandboxProgram);
  if (!program) {
    return fail(arguments,
                refusal(std::string("Applications are run under bubblewrap, but there is no ") +
                        sandboxProgram + " on this machine."));
  }
  const auto contents = contentsFor(*bundle);
  if (!contents) return fail(arguments, contents.error());

  const auto documents = grantAll(arguments, bundle->identifier);
  if (documents.failed) return *documents.failed;

  const std::string privateRuntime = "/run/user/" + std::to_string(::getuid());
  const auto opened = OpenedWorld::openTo(*world, privateRuntime);
  if (!opened) return fail(arguments, opened.error());
  // Bubblewrap's own environment can be read inside too, so it is the application's already.
  std::vector<std::string> variables;
  for (const auto& [name, value] : environmentFor(*contents, privateRuntime, *opened)) {
    variables.push_back(name);
    variables.back().append("=").append(value);
  }
  const auto ended =
      runSandbox(*program, bundle->identifier,
                 argumentsFor(*contents, privateRuntime, *opened, documents, arguments.rest),
                 std::move(variables), opened->descriptors());
  return ended ? *ended : fail(arguments, ended.error());
}

}  // namespace tool
