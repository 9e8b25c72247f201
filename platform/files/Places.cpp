#include "platform/files/Places.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "platform/files/FileManager.h"

namespace qx::Places {
namespace {

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

struct Directories {
  std::optional<std::string> rootOverride = environment("DOCSOURCE_ROOT");
  std::string root;
  std::string runtime;

  Directories() {
    if (rootOverride) {
      root = normalised(*rootOverride);
      runtime = (root == "/" ? "" : root) + "/run";
    } else if (::geteuid() == 0) {
      root = "/var/lib/docsource";
      runtime = "/run/docsource";
    } else {
      const auto data = xdgDirectory("XDG_DATA_HOME");
      const auto run = xdgDirectory("XDG_RUNTIME_DIR");
      root = normalised(data ? *data : homeOfUser() + "/.local/share") + "/docsource";
      runtime = normalised(run ? *run : "/run/user/" + std::to_string(::geteuid())) + "/docsource";
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

/// The mode is the runtime directory's own, whatever the umask; one that is there is left alone.
int makeRuntimeDirectory(const std::string& path) {
  if (FileManager::fileExists(path)) return make(path);
  if (const int failed = make(std::filesystem::path(path).parent_path().string())) return failed;
  const mode_t mode = ::geteuid() == 0 ? 0755 : 0700;
  if (::mkdir(path.c_str(), 0700) != 0) return errno == EEXIST ? make(path) : errno;
  return ::chmod(path.c_str(), mode) == 0 ? 0 : errno;
}

}  // namespace

const std::string& root() { return directories().root; }
const std::string& runtimeDirectory() { return directories().runtime; }
const std::optional<std::string>& rootOverride() { return directories().rootOverride; }

std::string applications() { return root() + "/Applications"; }
std::string extensions() { return root() + "/Extensions"; }
std::string groupContainers() { return root() + "/Containers/Group"; }
std::string dataContainers() { return root() + "/Containers/Data"; }
std::string home() { return root() + "/Home"; }
std::string serviceSocket(const std::string& serviceName) {
  return runtimeDirectory() + "/" + serviceName;
}
std::string notifications() { return runtimeDirectory() + "/notify"; }
std::string keyState() { return runtimeDirectory() + "/key-state"; }
std::string sandboxKey() { return runtimeDirectory() + "/sandbox.key"; }
std::string sandboxServices() { return runtimeDirectory() + "/sandbox"; }

int prepare() {
  for (const std::string& path :
       {root(), applications(), extensions(), groupContainers(), home()}) {
    if (const int failed = make(path)) return failed;
  }
  if (const int failed = makeRuntimeDirectory(runtimeDirectory())) return failed;
  if (const int failed = make(notifications())) return failed;
  return make(sandboxServices());
}

}  // namespace qx::Places
