// One process of a provider extension.
//
// The process object is kept alive by the reactor until the process is reaped, and by the timers
// that are to see to its end.

#include "platform/extension/ExtensionProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/extension/CatalogExtensionProxy.h"
#include "platform/extension/ExtensionHost.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"
#include "platform/queue/WorkPool.h"

namespace qx {
namespace {

using std::chrono::seconds;

constexpr seconds idleTime{10};
constexpr seconds timeToEnd{2};
constexpr seconds timeToBeKilled{5};
constexpr int connectionNumber = 3;

/// A root relative to our working directory, which is not the extension's.
bool isRootRelative() {
  const auto& root = Places::rootOverride();
  return root && !root->starts_with('/');
}

/// What belongs to this daemon's own start by a service manager and must not be passed on.
bool isInherited(std::string_view variable) {
  if (variable.starts_with("DOCSOURCE_ROOT=") && isRootRelative()) return false;
  for (std::string_view name : {"NOTIFY_SOCKET=", "LISTEN_PID=", "LISTEN_FDS=", "LISTEN_FDNAMES=",
                                "WATCHDOG_PID=", "WATCHDOG_USEC=", "QX_EXTENSION_CONNECTION=",
                                "QX_EXTENSION_IDENTIFIER=", "QX_DOCUMENT_STORAGE="}) {
    if (variable.starts_with(name)) return false;
  }
  return true;
}

/// Makes the group containers and returns the provided-items directory where there is one.
std::optional<std::string> prepareContainers(const std::shared_ptr<const Bundle>& bundle) {
  CatalogExtensionProxy record(bundle);
  auto containers = record.groupContainerURLs();
  for (const auto& [group, url] : containers) {
    if (auto path = url.path()) {
      if (auto error = FileManager::createDirectory(*path)) {
        DS_LOG("[ERROR] Cannot create group container %@. Error: %@", url, *error);
      }
    }
  }
  const auto* extension = record.objectForInfoDictionaryKey_ofClass<Dictionary>("QXExtension");
  const auto* group =
      extension ? find<std::string>(*extension, "QXExtensionDocSourceDocumentGroup") : nullptr;
  auto container = group ? containers.find(*group) : containers.end();
  if (container == containers.end()) return std::nullopt;
  return Places::groupContainers() + "/" + *group + "/Doc Source Storage";
}

std::vector<std::string> environmentOf(const std::shared_ptr<const Bundle>& bundle) {
  std::vector<std::string> environment;
  for (char** variable = environ; *variable; ++variable) {
    if (isInherited(*variable)) environment.emplace_back(*variable);
  }
  if (isRootRelative()) environment.push_back("DOCSOURCE_ROOT=" + Places::root());
  environment.push_back("QX_EXTENSION_CONNECTION=" + std::to_string(connectionNumber));
  environment.push_back("QX_EXTENSION_IDENTIFIER=" + bundle->identifier);
  if (auto storage = prepareContainers(bundle)) {
    environment.push_back("QX_DOCUMENT_STORAGE=" + *storage);
  }
  return environment;
}

/// The file actions and attributes of posix_spawn(3), released when they go.
struct SpawnSetup {
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
};

}  // namespace

Result<std::shared_ptr<ExtensionProcess>> ExtensionProcess::start(
    std::shared_ptr<const Bundle> bundle, const QXExtensionPoint& point) {
  auto process = std::make_shared<ExtensionProcess>(std::move(bundle), point);
  if (auto error = process->spawn()) {
    return extensionError(ExtensionErrorCode::couldNotLaunch, process->bundle_->identifier, *error);
  }
  return process;
}

ExtensionProcess::ExtensionProcess(std::shared_ptr<const Bundle> bundle,
                                   const QXExtensionPoint& point)
    : bundle_(std::move(bundle)), point_(point) {}

std::optional<Error> ExtensionProcess::spawn() {
  // The program may lie where reading takes long.
  const WorkPool::Waiting waiting;
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return posixError(errno, "A socket pair cannot be made");
  }
  FileDescriptor ours(ends[0]);
  FileDescriptor theirs(ends[1]);
  // Ours alone: the end that the extension gets stays a blocking one.
  fcntl(ours.get(), F_SETFL, O_NONBLOCK);

  SpawnSetup setup;
  posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&setup.actions, STDERR_FILENO, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&setup.actions, theirs.get(), connectionNumber);
  posix_spawn_file_actions_addclosefrom_np(&setup.actions, connectionNumber + 1);
  posix_spawn_file_actions_addchdir_np(&setup.actions, bundle_->path.c_str());
  // All of them: sigfillset(3) leaves out two that the C library uses itself, and those
  // posix_spawn(3) would have ignored in the new program.
  sigset_t signals;
  std::memset(&signals, 0xff, sizeof signals);
  posix_spawnattr_setsigdefault(&setup.attributes, &signals);
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&setup.attributes, &signals);
  // A group of its own: what a terminal sends to the daemon is for the daemon.
  posix_spawnattr_setpgroup(&setup.attributes, 0);
  posix_spawnattr_setflags(&setup.attributes,
                           POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);

  std::vector<std::string> environment = environmentOf(bundle_);
  std::vector<char*> variables;
  variables.reserve(environment.size() + 1);
  for (std::string& variable : environment) variables.push_back(variable.data());
  variables.push_back(nullptr);
  std::string executable = bundle_->executable;
  std::array<char*, 2> arguments{executable.data(), nullptr};
  if (int errnum = posix_spawn(&process_, executable.c_str(), &setup.actions, &setup.attributes,
                               arguments.data(), variables.data());
      errnum != 0) {
    process_ = -1;
    return posixError(errnum, executable + " cannot be started");
  }
  restoreDescriptorLimit(process_);
  descriptor_.reset(static_cast<int>(syscall(SYS_pidfd_open, process_, 0)));
  if (!descriptor_) {
    // Nobody would learn of its end.
    const int errnum = errno;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    return posixError(errnum, executable + " cannot be watched");
  }
  DS_LOG("[INFO] Started extension %@ as process %d.", bundle_->identifier, process_);

  connection_ = QXConduitConnection::overSocket(std::move(ours));
  connection_->setPeerProcess(process_);
  connection_->setExportedInterface(point_.hostProtocol);
  connection_->setRequestHandler([self = weak_from_this()](bool begins, const UUID& request) {
    auto process = self.lock();
    // Requests are ours to begin; one that the extension ends has failed.
    if (process && !begins) process->requestEnded(request);
  });
  connection_->setInvalidationHandler([self = weak_from_this()] {
    if (auto process = self.lock()) process->end();
  });
  connection_->resume();

  std::lock_guard lock(mutex_);
  source_ = Reactor::shared().add(descriptor_.get(), EPOLLIN, shared_from_this());
  return std::nullopt;
}

std::optional<UUID> ExtensionProcess::beginRequest() {
  const UUID request = UUID::random();
  auto context = point_.makeContext();
  auto auxiliary = connection_->auxiliaryConnection(request, point_.vendorProtocol);
  // A call that fails is the end of its request: nobody else would end it.
  auxiliary->setFailureHandler([self = weak_from_this(), request] {
    if (auto process = self.lock()) process->endRequest(request);
  });
  context->setAuxiliaryConnection(std::move(auxiliary));
  std::lock_guard lock(mutex_);
  if (!takesRequestsLocked()) return std::nullopt;
  requests_.emplace(request, std::move(context));
  connection_->beginRequest(request);
  return request;
}

bool ExtensionProcess::endRequest(const UUID& request) {
  std::shared_ptr<QXExtensionContext> context;
  bool last = false;
  {
    std::lock_guard lock(mutex_);
    auto found = requests_.find(request);
    if (found == requests_.end()) return false;
    context = std::move(found->second);
    requests_.erase(found);
    connection_->endRequest(request);
    last = requests_.empty() && retired_;
    if (requests_.empty()) becameIdleLocked();
  }
  if (last) end();
  return true;
}

/// The extension has given the request up.
void ExtensionProcess::requestEnded(const UUID& request) {
  connection_->failRequest(request);
  endRequest(request);
}

/// A timer that runs already is left to run: it looks at its end how long nothing was open. So a
/// request that comes and goes sets no timer.
void ExtensionProcess::becameIdleLocked() {
  idleSince_ = Clock::current().now();
  if (!over_ && idleTimer_ == 0 && !keepsRunning(*bundle_)) watchIdlenessLocked(idleTime);
}

void ExtensionProcess::watchIdlenessLocked(Clock::Duration time) {
  idleTimer_ = Clock::current().schedule(time, [self = weak_from_this()] {
    auto process = self.lock();
    if (!process) return;
    {
      std::lock_guard lock(process->mutex_);
      process->idleTimer_ = 0;
      if (process->over_ || !process->requests_.empty()) return;
      const auto left = process->idleSince_ + idleTime - Clock::current().now();
      if (left > Clock::Duration::zero()) return process->watchIdlenessLocked(left);
      process->retired_ = true;
    }
    DS_LOG("[INFO] Extension %@ is idle; ending it.", process->bundle_->identifier);
    process->end();
  });
}

std::shared_ptr<QXExtensionContext> ExtensionProcess::context(const UUID& request) const {
  std::lock_guard lock(mutex_);
  auto found = requests_.find(request);
  return found == requests_.end() ? nullptr : found->second;
}

void ExtensionProcess::retire() {
  bool idle = false;
  {
    std::lock_guard lock(mutex_);
    retired_ = true;
    idle = requests_.empty();
  }
  if (idle) end();
}

bool ExtensionProcess::takesRequests() const {
  std::lock_guard lock(mutex_);
  return takesRequestsLocked();
}

void ExtensionProcess::end() {
  std::map<UUID, std::shared_ptr<QXExtensionContext>> requests;
  {
    std::lock_guard lock(mutex_);
    if (over_) return;
    over_ = true;
    requests.swap(requests_);
    Clock& clock = Clock::current();
    if (idleTimer_ != 0) clock.cancel(std::exchange(idleTimer_, 0));
    if (!reaped_) {
      auto self = shared_from_this();
      terminateTimer_ = clock.schedule(timeToEnd, [self] { self->sendSignal(SIGTERM); });
      killTimer_ = clock.schedule(timeToBeKilled, [self] { self->sendSignal(SIGKILL); });
    }
  }
  connection_->invalidate();
}

void ExtensionProcess::sendSignal(int signal) {
  std::lock_guard lock(mutex_);
  if (reaped_ || !sentSignals_.insert(signal).second) return;
  DS_LOG("[NOTICE] Extension %@ (process %d) does not end; sending it signal %d.",
         bundle_->identifier, process_, signal);
  syscall(SYS_pidfd_send_signal, descriptor_.get(), signal, nullptr, 0);
}

void ExtensionProcess::ready(std::uint32_t /*events*/) {
  // Over first: nobody may find a request in a process that was reaped.
  end();
  reap();
}

void ExtensionProcess::reap() {
  siginfo_t info{};
  {
    std::lock_guard lock(mutex_);
    if (reaped_) return;
    const bool isGone = waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG) != 0 &&
                        errno == ECHILD;
    if (!isGone && info.si_pid == 0) {
      if (source_ != 0) Reactor::shared().arm(source_, descriptor_.get(), EPOLLIN);
      return;
    }
    reaped_ = true;
    Clock& clock = Clock::current();
    if (terminateTimer_ != 0) clock.cancel(terminateTimer_);
    if (killTimer_ != 0) clock.cancel(killTimer_);
    if (source_ != 0) Reactor::shared().remove(source_, descriptor_.get());
  }
  if (info.si_pid == 0) {
    DS_LOG("[NOTICE] Extension %@ (process %d) ended.", bundle_->identifier, process_);
  } else if (info.si_code == CLD_EXITED) {
    DS_LOG("[INFO] Extension %@ (process %d) ended with status %d.", bundle_->identifier, process_,
           info.si_status);
  } else {
    DS_LOG("[NOTICE] Extension %@ (process %d) was ended by signal %d.", bundle_->identifier,
           process_, info.si_status);
  }
  ExtensionHost::shared().forget(*this);
}

void ExtensionProcess::waitForExit() {
  const auto waitFor = [this](seconds time) {
    pollfd entry{descriptor_.get(), POLLIN, 0};
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(time);
    return poll(&entry, 1, static_cast<int>(limit.count())) > 0;
  };
  if (!waitFor(timeToEnd)) {
    sendSignal(SIGTERM);
    if (!waitFor(timeToBeKilled - timeToEnd)) {
      sendSignal(SIGKILL);
      waitFor(timeToBeKilled);
    }
  }
  reap();
}

}  // namespace qx
