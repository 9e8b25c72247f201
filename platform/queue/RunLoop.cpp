/// The main thread's run loop: sleeps in poll(2) on a counter that perform() and stop() raise
/// (eventfd(2)) and on the signals that end the program (signalfd(2)).

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
#include <deque>
#include <mutex>
#include <utility>

#include "platform/base/FileDescriptor.h"

namespace qx {

struct RunLoop::State {
  FileDescriptor wakeUps{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  FileDescriptor signals;
  sigset_t stopping;
  std::mutex mutex;
  std::deque<std::function<void()>> tasks;
  bool isStopped = false;

  void wakeUp() const {
    const std::uint64_t one = 1;
    // Fails only when the counter is full, and then the loop is awake anyhow.
    [[maybe_unused]] const auto written = ::write(wakeUps.get(), &one, sizeof one);
  }

  bool hasTasks() {
    const std::lock_guard lock(mutex);
    return !tasks.empty();
  }

  /// Waits for something to do, or only looks.
  void collect(bool wait) {
    pollfd sources[] = {{wakeUps.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
    if (::poll(sources, 2, wait ? -1 : 0) <= 0) return;
    std::uint64_t count = 0;
    signalfd_siginfo signal;
    [[maybe_unused]] const auto drained = ::read(wakeUps.get(), &count, sizeof count);
    while (signals && ::read(signals.get(), &signal, sizeof signal) == sizeof signal) {
      const std::lock_guard lock(mutex);
      isStopped = true;
    }
  }

  enum class Next { nothing, task, stop };
  Next next(std::function<void()>& task) {
    const std::lock_guard lock(mutex);
    if (std::exchange(isStopped, false)) return Next::stop;
    if (tasks.empty()) return Next::nothing;
    task = std::move(tasks.front());
    tasks.pop_front();
    return Next::task;
  }
};

RunLoop& RunLoop::main() {
  static auto& loop = *new RunLoop;
  return loop;
}

RunLoop::RunLoop() : state_(std::make_unique<State>()) {
  if (!state_->wakeUps) std::abort();
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
  for (;;) {
    state_->collect(!state_->hasTasks());
    std::function<void()> task;
    switch (state_->next(task)) {
      case State::Next::stop:
        return;
      case State::Next::task:
        task();
        break;
      case State::Next::nothing:
        break;
    }
  }
}

void RunLoop::stop() {
  {
    const std::lock_guard lock(state_->mutex);
    state_->isStopped = true;
  }
  state_->wakeUp();
}

void RunLoop::perform(std::function<void()> task) {
  {
    const std::lock_guard lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
  }
  state_->wakeUp();
}

}  // namespace qx
