/// Threads of the platform layer: named, and deaf to signals from their first instruction on,
/// because the mask is inherited from the starting thread (pthread_sigmask(3)).

#include "platform/queue/Thread.h"

#include <pthread.h>
#include <signal.h>

#include <system_error>
#include <utility>

namespace qx {

std::thread startThread(const char* name, std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread;
  try {
    thread = std::thread(std::move(body));
    pthread_setname_np(thread.native_handle(), name);
  } catch (const std::system_error&) {
    // Out of threads: the caller sees that there is none.
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

}  // namespace qx
