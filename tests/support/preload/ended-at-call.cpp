// Ends or stops a daemon right before its n-th call that changes something others see, n being in
// a file that the test shares with it (DOCSOURCE_TEST_CALLS, tests/support/EndedAtCall.h). Loaded
// by LD_PRELOAD (ld.so(8)); what a daemon starts is left alone.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tests/support/EndedAtCall.h"

namespace {

qx::test::Countdown* mapped() {
  const std::string_view program(program_invocation_short_name);
  const char* path = std::getenv(qx::test::countdownVariable);
  if (!path || (program != "docsourced" && program != "platformd")) return nullptr;
  const int file = ::open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) return nullptr;
  void* memory =
      ::mmap(nullptr, sizeof(qx::test::Countdown), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  return memory == MAP_FAILED ? nullptr : static_cast<qx::test::Countdown*>(memory);
}

void before(const char* call) {
  static qx::test::Countdown* const countdown = mapped();
  const int reason = errno;
  if (countdown && countdown->left > 0 && --countdown->left == 0) {
    std::strncpy(countdown->call.data(), call, countdown->call.size() - 1);
    countdown->ended = ::getpid();
    // To this thread: another that took it for the process would let this one make the call.
    ::raise(countdown->isToStop ? SIGSTOP : SIGKILL);
  }
  errno = reason;
}

}  // namespace

// NOLINTBEGIN(bugprone-macro-parentheses)
#define COUNTED(RESULT, NAME, PARAMETERS, ARGUMENTS)                                            \
  extern "C" __attribute__((visibility("default"))) RESULT NAME PARAMETERS {                    \
    static const auto real = reinterpret_cast<RESULT(*) PARAMETERS>(::dlsym(RTLD_NEXT, #NAME)); \
    before(#NAME);                                                                              \
    return real ARGUMENTS;                                                                      \
  }

COUNTED(int, linkat, (int a, const char* b, int c, const char* d, int e), (a, b, c, d, e))
COUNTED(int, renameat2, (int a, const char* b, int c, const char* d, unsigned e), (a, b, c, d, e))
COUNTED(int, renameat, (int a, const char* b, int c, const char* d), (a, b, c, d))
COUNTED(int, rename, (const char* a, const char* b), (a, b))
COUNTED(int, unlinkat, (int a, const char* b, int c), (a, b, c))
COUNTED(int, unlink, (const char* a), (a))
COUNTED(int, mkdirat, (int a, const char* b, mode_t c), (a, b, c))
COUNTED(int, fsync, (int a), (a))
COUNTED(int, futimens, (int a, const timespec* b), (a, b))
COUNTED(int, setxattr, (const char* a, const char* b, const void* c, size_t d, int e),
        (a, b, c, d, e))
COUNTED(int, removexattr, (const char* a, const char* b), (a, b))
COUNTED(int, chmod, (const char* a, mode_t b), (a, b))
COUNTED(int, fanotify_mark, (int a, unsigned b, std::uint64_t c, int d, const char* e),
        (a, b, c, d, e))
COUNTED(ssize_t, sendmsg, (int a, const msghdr* b, int c), (a, b, c))
// NOLINTEND(bugprone-macro-parentheses)

/// An answer to the kernel (fanotify(7)), not a line of the log or a count of an eventfd.
extern "C" __attribute__((visibility("default"))) ssize_t write(int file, const void* data,
                                                                size_t size) {
  static const auto real =
      reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(::dlsym(RTLD_NEXT, "write"));
  struct Answer {
    int event;
    unsigned response;
  } answer;
  if (file > STDERR_FILENO && size == sizeof answer) {
    std::memcpy(&answer, data, size);
    if (answer.event > 0 && answer.response != 0) before("write");
  }
  return real(file, data, size);
}
