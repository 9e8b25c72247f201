// Sockets are bound into the sandbox, each under the name that libraries look for. Of the session
// bus the application gets the socket of an xdg-dbus-proxy(1) that lets through what was named.

#include "tools/docsource/OpenedWorld.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/SandboxProcess.h"

namespace tool {
namespace {

namespace fs = std::filesystem;
using qx::Error;
using qx::FileDescriptor;

std::optional<std::string> variable(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? std::optional<std::string>(value) : std::nullopt;
}

/// Where sockets of the session are; not below the root, whose runtime directory is ours alone.
std::string sessionDirectory() {
  return variable("XDG_RUNTIME_DIR").value_or("/run/user/" + std::to_string(::getuid()));
}

bool isSocket(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// ---- X11

/// The number of a display of this machine: ":1", "unix:1.0".
std::optional<std::string> numberOf(std::string_view display) {
  if (display.starts_with("unix:")) display.remove_prefix(4);
  if (!display.starts_with(':')) return std::nullopt;
  const auto number = display.substr(1, display.find('.') - 1);
  const bool isNumber = !number.empty() && number.size() <= 5 &&
                        number.find_first_not_of("0123456789") == std::string_view::npos;
  return isNumber ? std::optional<std::string>(number) : std::nullopt;
}

/// Reads and writes what a file of authorities holds (Xau): a family, then address, number of the
/// display, name of the method, and secret, each behind its length; all numbers of 16 bits, big end
/// first.
class Authorities {
 public:
  /// Those of one display, for whatever name the machine has where they are used.
  static std::string ofDisplay(std::string_view file, std::string_view number) {
    constexpr std::uint16_t everywhere = 0xffff;
    Authorities rest(file);
    std::string chosen;
    while (rest.skipNumber()) {
      std::array<std::optional<std::string_view>, 4> fields;
      for (auto& field : fields) field = rest.field();
      if (!fields[3]) break;
      if (!fields[1]->empty() && *fields[1] != number) continue;
      chosen += encoded(everywhere) + encoded(0);
      for (const auto& field : {fields[1], fields[2], fields[3]}) {
        chosen += encoded(static_cast<std::uint16_t>(field->size())) + std::string(*field);
      }
    }
    return chosen;
  }

 private:
  explicit Authorities(std::string_view rest) : rest_(rest) {}

  static std::string encoded(std::uint16_t number) {
    return {static_cast<char>(number >> 8U), static_cast<char>(number & 0xffU)};
  }
  std::optional<std::size_t> skipNumber() {
    if (rest_.size() < 2) return std::nullopt;
    const auto high = static_cast<unsigned char>(rest_[0]),
               low = static_cast<unsigned char>(rest_[1]);
    rest_.remove_prefix(2);
    return std::size_t{high} << 8U | low;
  }
  std::optional<std::string_view> field() {
    const auto size = skipNumber();
    if (!size || *size > rest_.size()) return std::nullopt;
    const auto text = rest_.substr(0, *size);
    rest_.remove_prefix(*size);
    return text;
  }

  std::string_view rest_;
};

/// A file that is nowhere.
FileDescriptor fileWith(const std::string& content) {
  FileDescriptor file(::memfd_create("authorities", MFD_CLOEXEC));
  const auto size = static_cast<ssize_t>(content.size());
  if (!file || ::write(file.get(), content.data(), content.size()) != size ||
      ::lseek(file.get(), 0, SEEK_SET) != 0) {
    return {};
  }
  return file;
}

// ---- The network

/// Keeps this process, and what it starts, from the abstract sockets that others listen on
/// (landlock(7), Linux 6.12): they belong to the network namespace, and no file's permissions
/// stand before them.
int renounceAbstractSockets() {
  // As of the sixth version of the interface; the headers may be older.
  struct {
    std::uint64_t files = 0, network = 0, scoped = 1U << 0U;
  } attributes;
  const FileDescriptor rules(
      static_cast<int>(::syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
  if (!rules || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      ::syscall(SYS_landlock_restrict_self, rules.get(), 0) != 0) {
    return errno;
  }
  return 0;
}

// ---- The session bus

constexpr const char* proxyProgram = "xdg-dbus-proxy";
constexpr const char* busDirectories = "bus.";

/// What others have left behind who were killed: directories that nobody has locked.
void removeLeftDirectories(const std::string& place) {
  std::error_code failed;
  for (fs::directory_iterator at(place, failed), end; !failed && at != end; at.increment(failed)) {
    if (!at->path().filename().string().starts_with(busDirectories)) continue;
    const FileDescriptor directory(
        ::open(at->path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory && ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) {
      (void)qx::FileManager::removeTree(at->path());
    }
  }
}

/// A directory of this process's, locked; its path in `path`.
FileDescriptor makeBusDirectory(std::string& path) {
  const auto& place = qx::Places::runtimeDirectory();
  removeLeftDirectories(place);
  while (true) {
    path = place + "/" + busDirectories + "XXXXXX";
    if (!::mkdtemp(path.data())) return {};
    FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!directory || ::flock(directory.get(), LOCK_EX) != 0) return {};
    // Somebody may have taken it for one that was left behind.
    if (::fstat(directory.get(), &status) == 0 && status.st_nlink != 0) return directory;
  }
}

std::optional<std::string> busAddress() {
  if (auto address = variable("DBUS_SESSION_BUS_ADDRESS")) return address;
  const auto usual = sessionDirectory() + "/bus";
  return isSocket(usual) ? std::optional("unix:path=" + usual) : std::nullopt;
}

/// Started, and listening; it ends when what is returned is closed.
qx::Result<FileDescriptor> startProxy(const std::string& program, const std::string& address,
                                      const std::string& socket,
                                      const std::vector<std::string>& names) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return qx::posixError(errno, "No pipe can be made");
  FileDescriptor here(ends[0]), there(ends[1]);
  std::vector<std::string> words{proxyProgram, "--fd=" + std::to_string(there.get()), address,
                                 socket, "--filter"};
  for (const auto& name : names) words.push_back("--talk=" + name);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, there.get(), there.get());
  pid_t id = -1;
  const int failed =
      ::posix_spawn(&id, program.c_str(), &actions, nullptr, pointersTo(words).data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return qx::posixError(failed, program + " cannot be started");
  there.reset();
  char ready = 0;
  if (::read(here.get(), &ready, 1) != 1) {
    return qx::posixError(ECONNREFUSED, "The session bus " + address + " cannot be reached");
  }
  return here;
}

}  // namespace

qx::Result<OpenedWorld> OpenedWorld::openTo(const World& world, const std::string& runtime) {
  OpenedWorld desktop;
  if (world.wayland) desktop.openWayland(runtime);
  if (world.x11) desktop.openX11(runtime);
  if (world.sound) desktop.openSound(runtime);
  if (!world.busNames.empty()) {
    if (auto error = desktop.openBus(world.busNames, runtime)) return *std::move(error);
  }
  // Last: the bus may be at an abstract socket.
  if (world.network) {
    if (auto error = desktop.openNetwork()) return *std::move(error);
  } else {
    desktop.arguments_.emplace_back("--unshare-net");
  }
  return desktop;
}

OpenedWorld::~OpenedWorld() {
  proxy_.reset();
  if (busDirectory_) (void)qx::FileManager::removeTree(busPath_);
}

void OpenedWorld::show(const std::string& socket, const std::string& inside) {
  arguments_.insert(arguments_.end(), {"--ro-bind", socket, inside});
}

void OpenedWorld::openWayland(const std::string& runtime) {
  const auto display = variable("WAYLAND_DISPLAY").value_or("wayland-0");
  const auto socket = display.starts_with('/') ? display : sessionDirectory() + "/" + display;
  if (!isSocket(socket)) return;
  show(socket, runtime + "/wayland-0");
  variables_["WAYLAND_DISPLAY"] = "wayland-0";
}

void OpenedWorld::openX11(const std::string& runtime) {
  const auto number = numberOf(variable("DISPLAY").value_or(""));
  const auto socket = "/tmp/.X11-unix/X" + number.value_or("");
  if (!number || !isSocket(socket)) return;
  show(socket, socket);
  variables_["DISPLAY"] = ":" + *number;
  const auto file =
      variable("XAUTHORITY").value_or(variable("HOME").value_or("/nonexistent") + "/.Xauthority");
  const auto all = qx::FileManager::readFile(file);
  auto chosen = all ? fileWith(Authorities::ofDisplay(*all, *number)) : FileDescriptor();
  if (!chosen) return;
  const auto inside = runtime + "/Xauthority";
  arguments_.insert(arguments_.end(), {"--ro-bind-data", std::to_string(chosen.get()), inside});
  variables_["XAUTHORITY"] = inside;
  descriptors_.push_back(std::move(chosen));
}

/// PulseAudio's socket, which PipeWire serves too; PipeWire's own, which leads to cameras as well,
/// only where there is no other.
void OpenedWorld::openSound(const std::string& runtime) {
  constexpr std::string_view local = "unix:";
  const auto server = variable("PULSE_SERVER").value_or("");
  const auto pulse = server.starts_with(local) ? server.substr(local.size())
                                               : sessionDirectory() + "/pulse/native";
  if (isSocket(pulse)) return show(pulse, runtime + "/pulse/native");
  const auto pipeWire = variable("PIPEWIRE_RUNTIME_DIR").value_or(sessionDirectory()) + "/" +
                        variable("PIPEWIRE_REMOTE").value_or("pipewire-0");
  if (isSocket(pipeWire)) show(pipeWire, runtime + "/pipewire-0");
}

std::optional<Error> OpenedWorld::openNetwork() {
  arguments_.insert(arguments_.end(), {"--ro-bind-try", "/etc/resolv.conf", "/etc/resolv.conf"});
  const int failed = renounceAbstractSockets();
  if (failed == 0) return std::nullopt;
  return qx::posixError(failed,
                        "It wants the network, but this kernel cannot keep the abstract sockets of "
                        "this machine away from it; that takes Linux 6.12 with Landlock");
}

std::optional<Error> OpenedWorld::openBus(const std::vector<std::string>& names,
                                          const std::string& runtime) {
  const auto address = busAddress();
  if (!address) return std::nullopt;
  const auto program = programCalled(proxyProgram);
  if (!program) {
    return qx::posixError(ENOENT, std::string("It wants the session bus, which takes ") +
                                      proxyProgram + ", but that is not on this machine");
  }
  busDirectory_ = makeBusDirectory(busPath_);
  if (!busDirectory_) return qx::posixError(errno, busPath_);
  const auto socket = busPath_ + "/bus";
  auto proxy = startProxy(*program, *address, socket, names);
  if (!proxy) return proxy.error();
  proxy_ = *std::move(proxy);
  show(socket, runtime + "/bus");
  variables_["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + runtime + "/bus";
  return std::nullopt;
}

}  // namespace tool
