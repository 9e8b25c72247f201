/// The main thread's run loop: sleeps in poll(2) on a counter that stop() raises (eventfd(2)) and
/// on the signals that end the program (signalfd(2)).

#include "platform/queue/RunLoop.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>

#include "platform/base/FileDescriptor.h"

namespace qx {

struct RunLoop::State {
  FileDescriptor stops{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  FileDescriptor signals;
  sigset_t stopping;
};

RunLoop& RunLoop::main() {
  static auto& loop = *new RunLoop;
  return loop;
}

RunLoop::RunLoop() : state_(std::make_unique<State>()) {
  if (!state_->stops) std::abort();
  sigemptyset(&state_->stopping);
}

void RunLoop::stopOnSignals(std::initializer_list<int> signals) {
  for (const int signal : signals) sigaddset(&state_->stopping, signal);
  pthread_sigmask(SIG_BLOCK, &state_->stopping, nullptr);
  const int fd = signalfd(state_->signals.get(), &state_->stopping, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) std::abort();
  if (fd != state_->signals.get()) state_->signals.reset(fd);
  // A reader that is gone, and a file that may not grow, are errors of the write, not the end of
  // the program.
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL);
}

void RunLoop::run() {
  pollfd sources[] = {{state_->stops.get(), POLLIN, 0}, {state_->signals.get(), POLLIN, 0}};
  while (::poll(sources, 2, -1) <= 0) {
  }
  std::uint64_t count = 0;
  [[maybe_unused]] const auto drained = ::read(state_->stops.get(), &count, sizeof count);
  signalfd_siginfo signal;
  while (state_->signals &&
         ::read(state_->signals.get(), &signal, sizeof signal) == sizeof signal) {
  }
}

void RunLoop::stop() {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the loop is stopped anyhow.
  [[maybe_unused]] const auto written = ::write(state_->stops.get(), &one, sizeof one);
}

}  // namespace qx
