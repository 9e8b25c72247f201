#include "platform/conduit/ServiceSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/base/Errors.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx {
namespace {

/// A socket address for the name in a directory, and what keeps it meaningful.
struct Address {
  sockaddr_un socket{};
  socklen_t size = 0;
  FileDescriptor directory;
};

Result<Address> addressOf(const std::string& directory, const std::string& name) {
  Address address;
  address.socket.sun_family = AF_UNIX;
  std::string path = directory + "/" + name;
  if (path.size() >= sizeof(address.socket.sun_path)) {
    address.directory.reset(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!address.directory) return posixError(errno, "The runtime directory cannot be opened");
    path = "/proc/self/fd/" + std::to_string(address.directory.get()) + "/" + name;
    if (path.size() >= sizeof(address.socket.sun_path)) {
      return posixError(ENAMETOOLONG, "The name of the service is too long");
    }
  }
  std::memcpy(address.socket.sun_path, path.c_str(), path.size() + 1);
  address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return address;
}

const sockaddr* generic(const Address& address) {
  return reinterpret_cast<const sockaddr*>(&address.socket);
}

/// The descriptor that the service manager passed under this name.
FileDescriptor activatedSocket(const std::string& serviceName) {
  char** names = nullptr;
  int count = sd_listen_fds_with_names(0, &names);
  FileDescriptor found;
  for (int i = 0; i < count; ++i) {
    if (!found && serviceName == names[i]) found.reset(SD_LISTEN_FDS_START + i);
    free(names[i]);
  }
  free(names);
  return found;
}

/// A second name for the socket of the user's own service, a hard link, in the directory that
/// sandboxes have. Takes the place of the one of a dead socket in one step.
std::optional<Error> linkForSandboxes(const std::string& socketPath,
                                      const std::string& serviceName) {
  const std::string path = Places::sandboxServices() + "/" + serviceName;
  struct stat socket, offered;
  if (lstat(socketPath.c_str(), &socket) != 0) return posixError(errno, socketPath);
  if (lstat(path.c_str(), &offered) == 0 && offered.st_dev == socket.st_dev &&
      offered.st_ino == socket.st_ino) {
    return std::nullopt;
  }
  const std::string side =
      Places::sandboxServices() + "/." + serviceName + "." + std::to_string(getpid());
  unlink(side.c_str());
  std::optional<Error> error;
  if (!S_ISSOCK(socket.st_mode)) {
    error = posixError(ENOTSOCK, socketPath);
  } else if (link(socketPath.c_str(), side.c_str()) != 0 ||
             rename(side.c_str(), path.c_str()) != 0) {
    error = posixError(errno, path + " cannot be made");
  }
  unlink(side.c_str());
  return error;
}

/// Of the machine's sandboxed applications see all there is.
bool isUsersOwn(const std::string& serviceName) {
  return Places::serviceDirectory(serviceName) == Places::runtimeDirectory();
}
/// Whether sandboxed applications are to reach it through the user's runtime directory.
bool isOffered(const std::string& serviceName) {
  return isUsersOwn(serviceName) && Places::isForSandboxes(serviceName);
}

Result<FileDescriptor> connectTo(const std::string& directory, const std::string& serviceName,
                                 std::chrono::milliseconds longest) {
  auto address = addressOf(directory, serviceName);
  if (!address) return address.error();
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return posixError(errno, "A socket cannot be made");
  // Blocking: a full backlog is waited for, as long as a send would be (socket(7)). Non-blocking
  // from here on.
  const timeval limit{longest / std::chrono::seconds(1),
                      longest % std::chrono::seconds(1) / std::chrono::microseconds(1)};
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  int result = 0;
  do {
    result = connect(socket.get(), generic(*address), address->size);
  } while (result != 0 && errno == EINTR);
  if (result != 0) return posixError(errno, "The service " + serviceName + " cannot be reached");
  fcntl(socket.get(), F_SETFL, O_NONBLOCK);
  return socket;
}

/// Makes the places that whoever serves this needs, and no others: a platformd that starts first
/// leaves nothing in a user's root.
int prepareFor(const std::string& serviceName) {
  if (!isUsersOwn(serviceName)) return Places::prepareMachine();
  return Places::isOfPlatform(serviceName) ? Places::prepareRuntime() : Places::prepare();
}

void logUnreachable(const std::string& serviceName, const Error& error) {
  DS_LOG("[NOTICE] Sandboxed applications cannot reach the service %@. Error: %@", serviceName,
         error);
}

/// Sockets that another process listens on for this one.
struct AdoptedSockets {
  std::mutex mutex;
  std::map<std::string, FileDescriptor> sockets;

  static AdoptedSockets& shared() {
    static auto& adopted = *new AdoptedSockets;
    return adopted;
  }
};

}  // namespace

std::optional<Error> offerServiceSocketToSandboxes(const std::string& serviceName) {
  return linkForSandboxes(Places::runtimeDirectory() + "/" + serviceName, serviceName);
}

void adoptServiceSocket(const std::string& serviceName, FileDescriptor socket) {
  fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
  auto& adopted = AdoptedSockets::shared();
  std::lock_guard lock(adopted.mutex);
  adopted.sockets.insert_or_assign(serviceName, std::move(socket));
}

std::optional<Error> claimService(const std::string& serviceName) {
  static std::mutex mutex;
  static auto& claims = *new std::map<std::string, FileDescriptor>;
  std::lock_guard lock(mutex);
  if (claims.contains(serviceName)) return std::nullopt;
  const std::string& directory = Places::serviceDirectory(serviceName);
  if (const int errnum = prepareFor(serviceName); errnum != 0) {
    return posixError(errnum, directory + " cannot be prepared");
  }
  const std::string path = Places::serviceSocket(serviceName) + ".lock";
  FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) return posixError(errno, path + " cannot be opened");
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return posixError(errno, path + " cannot be locked");
    return posixError(EADDRINUSE, "The service " + serviceName + " is already running under " +
                                      (isUsersOwn(serviceName) ? Places::root() : directory));
  }
  claims.emplace(serviceName, std::move(file));
  return std::nullopt;
}

Result<ListeningSocket> listenOnServiceSocket(const std::string& serviceName) {
  {
    auto& adopted = AdoptedSockets::shared();
    std::lock_guard lock(adopted.mutex);
    if (auto found = adopted.sockets.extract(serviceName)) {
      return ListeningSocket{std::move(found.mapped()), false};
    }
  }
  if (auto error = claimService(serviceName)) return *error;
  if (FileDescriptor activated = activatedSocket(serviceName)) {
    fcntl(activated.get(), F_SETFD, FD_CLOEXEC);
    fcntl(activated.get(), F_SETFL, fcntl(activated.get(), F_GETFL) | O_NONBLOCK);
    if (isOffered(serviceName)) {
      if (auto error = offerServiceSocketToSandboxes(serviceName)) {
        logUnreachable(serviceName, *error);
      }
    }
    return ListeningSocket{std::move(activated), false};
  }
  if (connectTo(Places::serviceDirectory(serviceName), serviceName, std::chrono::seconds(30))) {
    return posixError(EADDRINUSE, "Another program serves " + serviceName);
  }
  // Bound beside its place and moved there once it listens: who finds the socket file, or is told
  // that it appeared, can connect.
  const std::string sideName = "." + serviceName;
  const std::string sidePath = Places::serviceDirectory(serviceName) + "/" + sideName;
  const std::string path = Places::serviceSocket(serviceName);
  auto address = addressOf(Places::serviceDirectory(serviceName), sideName);
  if (!address) return address.error();
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return posixError(errno, "A socket cannot be made");
  unlink(sidePath.c_str());
  if (bind(socket.get(), generic(*address), address->size) != 0) {
    return posixError(errno, sidePath + " cannot be bound");
  }
  // Who may reach the runtime directory may connect; operations are vetted one by one.
  const auto fails = [&] {
    Error error = posixError(errno, path + " cannot be listened on");
    unlink(sidePath.c_str());
    return error;
  };
  if (chmod(sidePath.c_str(), 0666) != 0 || listen(socket.get(), SOMAXCONN) != 0) return fails();
  if (isOffered(serviceName)) {
    if (auto error = linkForSandboxes(sidePath, serviceName)) logUnreachable(serviceName, *error);
  }
  if (rename(sidePath.c_str(), path.c_str()) != 0) return fails();
  return ListeningSocket{std::move(socket), true};
}

void removeServiceSocket(const std::string& serviceName) {
  unlink(Places::serviceSocket(serviceName).c_str());
  if (isOffered(serviceName)) unlink((Places::sandboxServices() + "/" + serviceName).c_str());
}

Result<FileDescriptor> connectToServiceSocket(const std::string& serviceName,
                                              std::chrono::milliseconds longest) {
  const auto directories = Places::serviceDirectories(serviceName);
  auto connected = connectTo(directories.front(), serviceName, longest);
  for (std::size_t next = 1; !connected && next < directories.size(); ++next) {
    connected = connectTo(directories[next], serviceName, longest);
  }
  // A sandbox of another program's may show that directory alone.
  if (!connected) {
    if (auto shown = connectTo(Places::sandboxServices(), serviceName, longest)) return shown;
  }
  return connected;
}

}  // namespace qx
