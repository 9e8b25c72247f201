// The holder of the groups: a loop around poll(2).

#include "platform/platformd/kernel/EventHolder.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/base/FileDescriptor.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx::kernel {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* accessesName = "fanotify-accesses";
constexpr const char* changesName = "fanotify-changes";
/// A worker that ends before it serves is not replaced sooner than this after its start.
constexpr milliseconds pause{500};
constexpr milliseconds timeToStop{10000};
/// No more is read while so many wait for the worker to take them: the kernel keeps what comes.
constexpr std::size_t mostUnsent = 4096;

FileDescriptor storedDescriptor(std::string_view wanted) {
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(0, &names);
  FileDescriptor found;
  for (int i = 0; i < count; ++i) {
    if (!found && wanted == names[i]) found.reset(SD_LISTEN_FDS_START + i);
    free(names[i]);
  }
  free(names);
  if (found) fcntl(found.get(), F_SETFD, FD_CLOEXEC);
  return found;
}

bool store(int descriptor, const char* name) {
  const std::string text = std::string("FDSTORE=1\nFDPOLL=0\nFDNAME=") + name;
  return sd_pid_notify_with_fds(0, 0, text.c_str(), &descriptor, 1) > 0;
}

}  // namespace

Result<EventHolder::Groups> EventHolder::groups(std::uint64_t wanted) {
  const std::size_t limit = raiseDescriptorLimit();
  FileDescriptor accesses = storedDescriptor(accessesName);
  FileDescriptor changes = storedDescriptor(changesName);
  // Version 254 and later says how many descriptors it would store.
  const char* storable = std::getenv("FDSTORE");
  const bool keeps = storable && std::atoi(storable) >= 2;
  if (accesses && changes) {
    Groups groups{AccessGroup(std::move(accesses)), ChangeGroup(std::move(changes)), wanted, keeps,
                  true};
    if (!groups.accesses.knowsAccess(Places::documentsFileSystem())) groups.mask = openPermission;
    // The files of these are not known any more; the numbers are enough to end the wait.
    const int most = static_cast<int>(std::min<std::size_t>(limit, 1U << 20U));
    int ended = 0;
    for (int number = 0; number < most; ++number) {
      if (groups.accesses.answer(number, EAGAIN)) ++ended;
    }
    DS_LOG(
        "[NOTICE] Took the watch over files back from the service manager; %d that waited were "
        "told to try again.",
        ended);
    return groups;
  }
  // Before an opening whoever opens waits for a lease anyway; but no user may make others wait.
  const auto create = [&] {
    return AccessGroup::create(wanted == openPermission && !Places::servesMachine());
  };
  auto newAccesses = create();
  if (newAccesses && wanted == preAccess &&
      !newAccesses->knowsAccess(Places::documentsFileSystem())) {
    wanted = openPermission;
    newAccesses = create();
  }
  if (!newAccesses) return newAccesses.error();
  auto newChanges = ChangeGroup::create();
  if (!newChanges) return newChanges.error();
  const bool stored = keeps && store(newAccesses->descriptor(), accessesName) &&
                      store(newChanges->descriptor(), changesName);
  return Groups{*std::move(newAccesses), *std::move(newChanges), wanted, stored, false};
}

void EventHolder::startWorker() {
  nextStart_ = steady_clock::now() + pause;
  auto [ours, theirs] = EventChannel::pair();
  if (!ours) {
    DS_LOG("[ERROR] Cannot start a worker: too many open files.");
    return;
  }
  std::vector<int> passed{theirs.descriptor(), groups_.accesses.descriptor(),
                          groups_.changes.descriptor()};
  for (const auto& socket : sockets_) passed.push_back(socket.get());
  const int first = workerChannel;
  const int last = first + static_cast<int>(passed.size());
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // First out of the way of the numbers that they are to have, then there.
  std::vector<FileDescriptor> aside;
  for (std::size_t i = 0; i < passed.size(); ++i) {
    aside.emplace_back(fcntl(passed[i], F_DUPFD_CLOEXEC, last));
    posix_spawn_file_actions_adddup2(&actions, aside.back().get(), first + static_cast<int>(i));
  }
  posix_spawn_file_actions_addclosefrom_np(&actions, last);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  std::vector<char*> variables;
  for (char** each = environ; *each; ++each) {
    // What concerns this process's own start stays with it.
    const std::string_view text(*each);
    if (text.starts_with("NOTIFY_SOCKET=") || text.starts_with("LISTEN_") ||
        text.starts_with("FDSTORE=")) {
      continue;
    }
    variables.push_back(*each);
  }
  variables.push_back(nullptr);
  std::string name = "platformd";
  std::string option = workerOption;
  std::string mechanism(nameOf(groups_.mechanism()));
  std::array<char*, 4> arguments{name.data(), option.data(), mechanism.data(), nullptr};
  const int errnum = posix_spawn(&worker_, "/proc/self/exe", &actions, &attributes,
                                 arguments.data(), variables.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (errnum != 0) {
    worker_ = -1;
    DS_LOG("[ERROR] Cannot start a worker. Error: %@", posixError(errnum, "platformd"));
    return;
  }
  workerEnd_.reset(static_cast<int>(syscall(SYS_pidfd_open, worker_, 0)));
  channel_ = std::move(ours);
  unsent_.clear();
  for (const auto& [number, pending] : pending_) unsent_.push_back(number);
  DS_LOG("[DEBUG] Started worker %d.", worker_);
}

void EventHolder::reapWorker() {
  siginfo_t info{};
  if (worker_ < 0 || waitid(P_PID, static_cast<id_t>(worker_), &info, WEXITED | WNOHANG) != 0 ||
      info.si_pid == 0) {
    return;
  }
  receive();  // what it said last
  if (!isStopped_) {
    DS_LOG("[ERROR] Worker %d ended (status %d) while %d waited for answers.", worker_,
           info.si_status, pending_.size());
  }
  worker_ = -1;
  workerEnd_.reset();
  channel_ = {};
  if (isStopping_) isStopped_ = true;
}

void EventHolder::readEvents() {
  if (unsent_.size() >= mostUnsent) return;
  for (auto& event : groups_.accesses.read()) keep(std::move(event));
}

void EventHolder::keep(AccessEvent event) {
  const int number = event.file.get();
  struct stat status {};
  fstat(number, &status);
  const FileIdentity identity = identityOf(status);
  auto& document = documents_[identity];
  if (document.events++ == 0) document.file = event.file.duplicate();
  // The same open file under every number: what came with the event goes.
  if (document.events > 1 && document.file) dup3(document.file.get(), number, O_CLOEXEC);
  const bool isOurs = event.process == worker_ || event.process == getpid();
  Message message{Message::Kind::event, number, event.process, 0, event.mask, event.thread};
  if (event.range) {
    message.hasRange = 1;
    message.begin = event.range->begin;
    message.end = event.range->end;
  }
  pending_.insert_or_assign(number, Pending{std::move(event.file), message, identity});
  if (isOurs) {
    answer(number, 0);
  } else {
    unsent_.push_back(number);
  }
}

void EventHolder::sendEvents() {
  while (channel_ && !unsent_.empty()) {
    const int number = unsent_.front();
    const auto pending = pending_.find(number);
    if (pending != pending_.end()) {
      if (channel_.send(pending->second.message, number) != EventChannel::Sent::yes) return;
    }
    unsent_.pop_front();
  }
}

void EventHolder::answer(int number, int errnum) {
  auto pending = pending_.extract(number);
  if (!pending) return;
  const auto document = documents_.find(pending.mapped().document);
  if (document != documents_.end() && --document->second.events == 0) documents_.erase(document);
  // The file first: who goes on may want to know that nobody else has it open.
  pending.mapped().number.reset();
  groups_.accesses.answer(number, errnum);
}

void EventHolder::receive() {
  EventChannel::Received received;
  while (channel_ && channel_.receive(received) == EventChannel::State::message) {
    switch (received.message.kind) {
      case Message::Kind::answer:
        answer(received.message.number, received.message.errnum);
        break;
      case Message::Kind::ready:
        if (!std::exchange(isReady_, true)) sd_notify(0, "READY=1");
        nextStart_ = steady_clock::now();
        break;
      case Message::Kind::stopped:
        isStopped_ = true;
        break;
      default:
        break;
    }
  }
}

void EventHolder::beginStop() {
  isStopping_ = true;
  sd_notify(0, "STOPPING=1");
  Message message{Message::Kind::stop};
  message.errnum = groups_.stored ? 1 : 0;
  if (!channel_ || channel_.send(message, -1, true) != EventChannel::Sent::yes) isStopped_ = true;
}

/// Nobody who waits now is let through when the group closes.
void EventHolder::finish() {
  if (groups_.stored) {
    DS_LOG("[NOTICE] Stopping; programs that read placeholders wait for the next start.");
    return;
  }
  for (readEvents(); !pending_.empty(); readEvents()) {
    unsent_.clear();
    while (!pending_.empty()) answer(pending_.begin()->first, EAGAIN);
  }
}

int EventHolder::run() {
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGTERM);
  sigaddset(&stopping, SIGINT);
  const FileDescriptor signals(signalfd(-1, &stopping, SFD_CLOEXEC | SFD_NONBLOCK));
  startWorker();
  steady_clock::time_point stopBegan;
  while (!isStopped_) {
    std::array<pollfd, 4> sources{{{signals.get(), POLLIN, 0},
                                   {groups_.accesses.descriptor(), POLLIN, 0},
                                   {channel_.descriptor(), POLLIN, 0},
                                   {workerEnd_.get(), POLLIN, 0}}};
    if (!unsent_.empty()) sources[2].events |= POLLOUT;
    if (unsent_.size() >= mostUnsent) sources[1].fd = -1;
    int wait = -1;
    if (worker_ < 0) {
      const auto due = std::chrono::ceil<milliseconds>(nextStart_ - steady_clock::now());
      wait = std::max(0, static_cast<int>(due.count()));
    } else if (isStopping_) {
      wait = static_cast<int>(timeToStop.count());
    }
    poll(sources.data(), sources.size(), wait);

    signalfd_siginfo signal;
    if (read(signals.get(), &signal, sizeof signal) == sizeof signal && !isStopping_) {
      stopBegan = steady_clock::now();
      beginStop();
    }
    receive();
    readEvents();
    reapWorker();
    if (isStopping_ && steady_clock::now() - stopBegan > timeToStop) break;
    if (worker_ < 0 && !isStopping_ && steady_clock::now() >= nextStart_) startWorker();
    sendEvents();
  }
  finish();
  if (worker_ > 0) {
    // It ends by itself when this end of the channel closes.
    channel_ = {};
    pollfd end{workerEnd_.get(), POLLIN, 0};
    if (poll(&end, 1, static_cast<int>(timeToStop.count())) <= 0) kill(worker_, SIGKILL);
    waitpid(worker_, nullptr, 0);
  }
  return 0;
}

}  // namespace qx::kernel
