// platformd: the platform services that need standing authority, file coordination and the
// redemption of sandbox extensions.
//
// With CAP_SYS_ADMIN, where it watches every program, it is two processes: the one that is started
// holds what must outlive a crash (EventHolder), and starts the other, which serves. Without, the
// one serves.

#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/Errors.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/Memory.h"
#include "platform/base/ProgramOptions.h"
#include "platform/conduit/ServiceSocket.h"
#include "platform/coordination/CoordinationState.h"
#include "platform/files/Places.h"
#include "platform/identity/UserIdentity.h"
#include "platform/log/Log.h"
#include "platform/platformd/FileCoordinationService.h"
#include "platform/platformd/SandboxService.h"
#include "platform/platformd/kernel/CooperativeGuard.h"
#include "platform/platformd/kernel/EventHolder.h"
#include "platform/platformd/kernel/KernelCoordinator.h"
#include "platform/queue/RunLoop.h"
#include "platform/sandbox/Sandbox.h"

namespace {

using qx::CoordinationMechanism;
using qx::kernel::EventHolder;

const std::vector<std::string>& serviceNames() {
  static const auto& names = *new std::vector<std::string>{fileCoordinationServiceName,
                                                           std::string(qx::sandboxServiceName)};
  return names;
}

/// The services, for as long as it lives.
struct Services {
  std::shared_ptr<UserAccounts> accounts =
      std::make_shared<UserAccounts>(qx::raiseDescriptorLimit());
  std::shared_ptr<DocSourceRegistry> registry =
      std::make_shared<DocSourceRegistry>(qx::Places::servesMachine());
  std::shared_ptr<FileCoordinationService> fileCoordination =
      FileCoordinationService::make(registry, accounts);
  std::shared_ptr<SandboxService> sandbox = SandboxService::make(accounts);

  void resume() const {
    fileCoordination->resume();
    sandbox->resume();
  }
};

/// Held by whoever serves. A holder that falls leaves its worker behind for the moment that it
/// takes to put the placeholders out of reach; the next one waits for that.
qx::FileDescriptor waitForTurnToServe() {
  const std::string path =
      qx::Places::serviceDirectory(fileCoordinationServiceName) + "/platformd.serving.lock";
  qx::FileDescriptor turn(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (turn && flock(turn.get(), LOCK_EX | LOCK_NB) != 0) {
    DS_LOG("[NOTICE] Waiting for the worker of an earlier start to end.");
    while (flock(turn.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  return turn;
}

int serve() {
  const auto turn = waitForTurnToServe();
  const Services services;
  const auto guard = qx::kernel::CooperativeGuard::start(qx::kernel::openStateDirectory());
  services.registry->setObserver(guard);
  services.resume();
  qx::RunLoop::main().run();
  return 0;
}

/// A descriptor that the holder left open for us.
qx::FileDescriptor inherited(int number) {
  fcntl(number, F_SETFD, FD_CLOEXEC);
  return qx::FileDescriptor(number);
}

/// What the administrator says of it, a number.
std::size_t mostPinned() {
  std::size_t most = qx::kernel::PinnedInodes::usual;
  const char* text = std::getenv("DOCSOURCE_KEPT_PLACEHOLDERS");
  if (text) std::from_chars(text, text + std::strlen(text), most);
  return most;
}

int work(bool byAccess) {
  // The holder says when to end.
  signal(SIGTERM, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  qx::RunLoop::main().stopOnSignals({});
  const auto turn = waitForTurnToServe();
  int number = EventHolder::workerSockets;
  for (const auto& name : serviceNames()) qx::adoptServiceSocket(name, inherited(number++));
  Services services;
  auto coordinator = std::make_shared<qx::kernel::KernelCoordinator>(
      services.registry, qx::kernel::EventChannel(inherited(EventHolder::workerChannel)),
      qx::kernel::AccessGroup(inherited(EventHolder::workerAccesses)),
      qx::kernel::ChangeGroup(inherited(EventHolder::workerChanges)),
      byAccess ? qx::kernel::preAccess : qx::kernel::openPermission,
      qx::kernel::GuardList(qx::kernel::openStateDirectory()), mostPinned());
  services.registry->setObserver(coordinator);
  // It says that the service is ready when everything is guarded that was before.
  coordinator->start([] { qx::RunLoop::main().stop(); });
  services.resume();
  qx::RunLoop::main().run();
  coordinator->stop();
  return 0;
}

int hold(EventHolder::Groups groups) {
  waitForTurnToServe().reset();
  // Not before: the worker of an earlier start takes the announcement back at its end. Where
  // nothing is marked yet, the worker announces it when all directories are: what providers make in
  // them until then is unreadable.
  const bool hasNothingToMark =
      qx::kernel::GuardList(qx::kernel::openStateDirectory()).all().empty();
  if (groups.areMarked || hasNothingToMark) {
    qx::announceCoordinationMechanism(groups.mechanism());
  } else {
    qx::withdrawCoordinationMechanism();
  }
  std::vector<qx::FileDescriptor> sockets;
  bool boundHere = false;
  for (const auto& name : serviceNames()) {
    auto socket = qx::listenOnServiceSocket(name);
    if (!socket) {
      std::fprintf(stderr, "platformd: %s\n", socket.error().description().c_str());
      return 1;
    }
    boundHere = boundHere || socket->boundHere;
    sockets.push_back(std::move(socket->socket));
  }
  const int status = EventHolder(std::move(groups), std::move(sockets)).run();
  for (const auto& name : serviceNames()) {
    if (boundHere) qx::removeServiceSocket(name);
  }
  return status;
}

/// The best that may be used; absent in the environment, and whatever else it says, all may.
CoordinationMechanism wantedMechanism() {
  const char* text = std::getenv("DOCSOURCE_COORDINATION");
  for (const auto less : {CoordinationMechanism::open, CoordinationMechanism::cooperative}) {
    if (text && text == qx::nameOf(less)) return less;
  }
  return CoordinationMechanism::access;
}

/// Root that serves one user makes and opens files as that user: nothing of root's is left in the
/// user's directories, and no link in them leads root anywhere.
int becomeServedUser() {
  if (qx::Places::servesMachine()) {
    // What lies in the machine's runtime directory is for everybody to read.
    umask(022);
    return 0;
  }
  const auto owner = qx::Places::runtimeOwner();
  if (geteuid() != 0 || owner.user == 0) return 0;
  return qx::UserIdentity::becomeOwnerOfFiles({owner.user, owner.group, {}});
}

/// To watch files and mark them, to look at the files of all users and at the processes that ask
/// for them, and to open files as the user who redeems a token.
int keepNeededCapabilities() {
  return qx::keepCapabilities({CAP_SYS_ADMIN, CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER,
                               CAP_SYS_PTRACE, CAP_SETUID, CAP_SETGID});
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::span arguments(argv, static_cast<std::size_t>(argc));
  const bool isWorker = arguments.size() == 3 &&
                        std::string_view(arguments[1]) == EventHolder::workerOption &&
                        fcntl(EventHolder::workerChannel, F_GETFD) >= 0;
  if (!isWorker) {
    if (const auto status = qx::answerOptions(
            arguments, "Coordinates files and redeems tokens, as root for all users.")) {
      return *status;
    }
  }
  qx::fillStandardDescriptors();
  qx::raiseDescriptorLimit();
  qx::keepFreeMemorySmall();
  int errnum = becomeServedUser();
  if (errnum == 0) errnum = keepNeededCapabilities();
  if (errnum != 0) {
    std::fprintf(stderr, "platformd: %s\n",
                 qx::posixError(errnum, "The rights cannot be restricted").description().c_str());
    return 1;
  }
  if (isWorker) return work(arguments[2] == qx::nameOf(CoordinationMechanism::access));
  qx::RunLoop::main().stopOnSignals({SIGTERM, SIGINT});
  for (const std::string& name : serviceNames()) {
    if (auto taken = qx::claimService(name)) {
      std::fprintf(stderr, "platformd: %s\n", taken->description().c_str());
      return 1;
    }
  }

  DS_LOG("[NOTICE] %s starting.", arguments.front());
  const auto wanted = wantedMechanism();
  if (wanted != CoordinationMechanism::cooperative) {
    auto groups =
        EventHolder::groups(wanted == CoordinationMechanism::access ? qx::kernel::preAccess
                                                                    : qx::kernel::openPermission);
    if (groups) return hold(*std::move(groups));
    DS_LOG("[INFO] The kernel cannot be asked for accesses. Error: %@", groups.error());
  }
  qx::announceCoordinationMechanism(CoordinationMechanism::cooperative);
  return serve();
}
