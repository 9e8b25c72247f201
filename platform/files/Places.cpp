#include "platform/files/Places.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/files/FileManager.h"

namespace qx::Places {
namespace {

constexpr mode_t ownersPermissions = 0700;
constexpr mode_t othersPermissions = 0077;

/// A variable that is set to something.
std::optional<std::string> environment(const char* name) {
  const char* value = ::getenv(name);
  return value && *value ? std::optional<std::string>(value) : std::nullopt;
}

/// A directory named after the XDG base directories; relative ones are to be ignored.
std::optional<std::string> xdgDirectory(const char* name) {
  auto value = environment(name);
  return value && value->starts_with('/') ? value : std::nullopt;
}

std::string homeOfUser() {
  if (auto home = environment("HOME")) return *home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
  return found ? found->pw_dir : "/";
}

std::string normalised(const std::string& path) {
  std::error_code error;
  std::string absolute = std::filesystem::absolute(path, error).string();
  if (error) absolute = path;
  while (absolute.size() > 1 && absolute.ends_with('/')) absolute.pop_back();
  return absolute;
}

/// lib/docsource beside the bin that the programs were installed to: this one, or a daemon in
/// libexec/docsource.
std::string bundlesBesideProgram() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  auto directory = program.parent_path();
  if (directory.filename() == "docsource") directory = directory.parent_path();
  return (directory.parent_path() / "lib/docsource").string();
}

struct Directories {
  std::optional<std::string> rootOverride = environment("DOCSOURCE_ROOT");
  std::optional<std::string> machineOverride = environment("DOCSOURCE_MACHINE");
  std::string root;
  std::string runtime;
  std::string flatpakInstances;
  std::optional<std::string> machineRuntime;
  std::optional<std::string> machineState;
  std::vector<std::string> machineBundles;

  Directories() {
    const auto run = normalised(
        xdgDirectory("XDG_RUNTIME_DIR").value_or("/run/user/" + std::to_string(::geteuid())));
    flatpakInstances = run + "/.flatpak";
    if (rootOverride) {
      root = normalised(*rootOverride);
      runtime = (root == "/" ? "" : root) + "/run";
    } else {
      const auto data = xdgDirectory("XDG_DATA_HOME");
      root = normalised(data ? *data : homeOfUser() + "/.local/share") + "/docsource";
      runtime = run + "/docsource";
    }
    if (machineOverride) {
      const std::string machine = normalised(*machineOverride);
      machineRuntime = machine + "/run";
      machineState = machine + "/state";
      machineBundles.push_back(machine + "/lib");
    } else if (!rootOverride) {
      machineRuntime = "/run/docsource";
      machineState = "/var/lib/docsource";
    }
    if (auto beside = bundlesBesideProgram();
        machineBundles.empty() || machineBundles.front() != beside) {
      machineBundles.push_back(std::move(beside));
    }
  }
};

const Directories& directories() {
  static const auto& instance = *new Directories;
  return instance;
}

int numberOf(const Error& error) {
  const auto underlying = error.underlyingError();
  return underlying ? static_cast<int>(underlying->code()) : ENOENT;
}

int make(const std::string& path) {
  const auto error = FileManager::createDirectory(path);
  return error ? numberOf(*error) : 0;
}

/// Of a directory that is there: it has to be this user's, and what others may do in it beyond the
/// mode is taken off. Root, in whose way others can put links, does that where no link is, and uses
/// what belongs to others as it is.
int restrict(const std::string& path, mode_t mode) {
  const bool isRoot = ::geteuid() == 0;
  open_how how{O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0, isRoot ? RESOLVE_NO_SYMLINKS : 0ULL};
  const FileDescriptor directory(
      static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
  struct stat status;
  if (!directory || ::fstat(directory.get(), &status) != 0) return isRoot ? 0 : errno;
  if (status.st_uid != ::geteuid()) return isRoot ? 0 : EPERM;
  if ((status.st_mode & othersPermissions & ~mode) == 0) return 0;
  const bool isDone = ::fchmod(directory.get(), status.st_mode & (ownersPermissions | mode)) == 0;
  // In a sandbox it is one that nobody can change.
  return isDone || errno == EROFS ? 0 : errno;
}

/// The mode is the directory's own, whatever the umask.
int makeWithMode(const std::string& path, mode_t mode) {
  if (FileManager::fileExists(path)) {
    const int failed = make(path);
    return failed != 0 ? failed : restrict(path, mode);
  }
  if (const int failed = make(std::filesystem::path(path).parent_path().string())) return failed;
  if (::mkdir(path.c_str(), 0700) != 0) return errno == EEXIST ? make(path) : errno;
  return ::chmod(path.c_str(), mode) == 0 ? 0 : errno;
}

std::string existingPartOf(std::filesystem::path path) {
  while (!FileManager::fileExists(path.string()) && path != path.root_path()) {
    path = path.parent_path();
  }
  return path.string();
}

/// Where what all users of the machine share is.
const std::string& sharedRuntimeDirectory() {
  const auto& machine = machineRuntimeDirectory();
  return machine && FileManager::fileExists(*machine) ? *machine : runtimeDirectory();
}

}  // namespace

const std::string& root() { return directories().root; }
const std::string& runtimeDirectory() { return directories().runtime; }
const std::optional<std::string>& rootOverride() { return directories().rootOverride; }
const std::optional<std::string>& machineOverride() { return directories().machineOverride; }
const std::optional<std::string>& machineRuntimeDirectory() { return directories().machineRuntime; }
const std::optional<std::string>& machineState() { return directories().machineState; }
const std::vector<std::string>& machineBundles() { return directories().machineBundles; }

bool servesMachine() { return ::geteuid() == 0 && machineRuntimeDirectory().has_value(); }

Owner runtimeOwner() {
  struct stat status;
  if (::stat(existingPartOf(runtimeDirectory()).c_str(), &status) != 0) return {};
  return {status.st_uid, status.st_gid};
}

std::string documentsFileSystem() {
  return existingPartOf(servesMachine() ? *machineState() : root());
}

std::string applications() { return root() + "/Applications"; }
std::string extensions() { return root() + "/Extensions"; }
std::string groupContainers() { return root() + "/Containers/Group"; }
std::string dataContainers() { return root() + "/Containers/Data"; }
std::string documentViews() { return root() + "/Containers/Views"; }
std::string home() { return root() + "/Home"; }

bool isOfPlatform(const std::string& serviceName) {
  return serviceName == "com.veltro.FileCoordination" || serviceName == "com.veltro.Sandbox";
}
bool isForSandboxes(const std::string& serviceName) {
  return isOfPlatform(serviceName) || serviceName == "com.veltro.DocSource" ||
         serviceName == "com.veltro.DocSource.Grants";
}
std::vector<std::string> serviceDirectories(const std::string& serviceName) {
  std::vector<std::string> all{runtimeDirectory()};
  if (isOfPlatform(serviceName) && machineRuntimeDirectory()) {
    all.push_back(*machineRuntimeDirectory());
  }
  return all;
}
const std::string& serviceDirectory(const std::string& serviceName) {
  return isOfPlatform(serviceName) && servesMachine() ? *machineRuntimeDirectory()
                                                      : runtimeDirectory();
}
std::string serviceSocket(const std::string& serviceName) {
  return serviceDirectory(serviceName) + "/" + serviceName;
}

std::string sandboxKey() { return runtimeDirectory() + "/sandbox.key"; }
std::string notifications() { return sharedRuntimeDirectory() + "/notify"; }
std::string keyState() { return sharedRuntimeDirectory() + "/key-state"; }
std::string sandboxServices() { return runtimeDirectory() + "/sandbox"; }
std::string sandboxRecords() { return runtimeDirectory() + "/sandboxes"; }
const std::string& flatpakInstances() { return directories().flatpakInstances; }

int prepare() {
  for (const std::string& path :
       {root(), applications(), extensions(), groupContainers(), home()}) {
    if (const int failed = make(path)) return failed;
  }
  return prepareRuntime();
}

int prepareRuntime() {
  if (const int failed = make(root())) return failed;
  for (const auto& [path, mode] :
       {std::pair<std::string, mode_t>(runtimeDirectory(), 0700),
        std::pair<std::string, mode_t>(runtimeDirectory() + "/notify", 0700),
        std::pair<std::string, mode_t>(sandboxServices(), 0700)}) {
    if (const int failed = makeWithMode(path, mode)) return failed;
  }
  return 0;
}

int prepareMachine() {
  if (const int failed = makeWithMode(*machineRuntimeDirectory(), 0755)) return failed;
  if (const int failed = makeWithMode(notifications(), 0755)) return failed;
  return makeWithMode(*machineState(), 0700);
}

}  // namespace qx::Places
