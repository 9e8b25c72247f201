// A program's own functions go before those of the C library, for the shared libraries, too.

#include "tests/mirror/Calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <utility>

namespace docsource::test {
namespace {

thread_local const BeforeCall* current = nullptr;
thread_local bool isInside = false;

int ask(const char* name, bool changes) {
  if (!current || isInside) return 0;
  isInside = true;
  const int problem = (*current)(name, changes);
  isInside = false;
  return problem;
}

}  // namespace

WatchedCalls::WatchedCalls(BeforeCall before)
    : outer_(std::exchange(current, nullptr)), before_(std::move(before)) {
  current = &before_;
}
WatchedCalls::~WatchedCalls() { current = outer_; }

}  // namespace docsource::test

// NOLINTBEGIN(bugprone-macro-parentheses)
#define WATCHED(RESULT, NAME, CHANGES, PARAMETERS, ARGUMENTS)                                   \
  extern "C" __attribute__((visibility("default"))) RESULT NAME PARAMETERS {                    \
    static const auto real = reinterpret_cast<RESULT(*) PARAMETERS>(::dlsym(RTLD_NEXT, #NAME)); \
    if (const int problem = docsource::test::ask(#NAME, CHANGES)) {                             \
      errno = problem;                                                                          \
      return -1;                                                                                \
    }                                                                                           \
    return real ARGUMENTS;                                                                      \
  }
#define WATCHED_OPEN(NAME, FIRST_PARAMETER, FIRST_ARGUMENT)                                    \
  extern "C" __attribute__((visibility("default"))) int NAME(FIRST_PARAMETER const char* path, \
                                                             int flags, ...) {                 \
    static const auto real = reinterpret_cast<int (*)(FIRST_PARAMETER const char*, int, ...)>( \
        ::dlsym(RTLD_NEXT, #NAME));                                                            \
    mode_t mode = 0;                                                                           \
    if (flags & (O_CREAT | O_TMPFILE)) {                                                       \
      va_list arguments;                                                                       \
      va_start(arguments, flags);                                                              \
      mode = va_arg(arguments, mode_t);                                                        \
      va_end(arguments);                                                                       \
    }                                                                                          \
    const bool changes = (flags & (O_CREAT | O_TRUNC)) != 0;                                   \
    if (const int problem = docsource::test::ask(#NAME, changes)) {                            \
      errno = problem;                                                                         \
      return -1;                                                                               \
    }                                                                                          \
    return real(FIRST_ARGUMENT path, flags, mode);                                             \
  }
#define DIRECTORY_PARAMETER int directory,
#define DIRECTORY_ARGUMENT directory,

WATCHED_OPEN(open, , )
WATCHED_OPEN(open64, , )
WATCHED_OPEN(openat, DIRECTORY_PARAMETER, DIRECTORY_ARGUMENT)
WATCHED_OPEN(openat64, DIRECTORY_PARAMETER, DIRECTORY_ARGUMENT)
WATCHED(int, renameat2, true, (int a, const char* b, int c, const char* d, unsigned e),
        (a, b, c, d, e))
WATCHED(int, renameat, true, (int a, const char* b, int c, const char* d), (a, b, c, d))
WATCHED(int, linkat, true, (int a, const char* b, int c, const char* d, int e), (a, b, c, d, e))
WATCHED(int, unlinkat, true, (int a, const char* b, int c), (a, b, c))
WATCHED(int, unlink, true, (const char* a), (a))
WATCHED(int, mkdirat, true, (int a, const char* b, mode_t c), (a, b, c))
WATCHED(int, fchmodat, true, (int a, const char* b, mode_t c, int d), (a, b, c, d))
WATCHED(int, chmod, true, (const char* a, mode_t b), (a, b))
WATCHED(int, fchmod, true, (int a, mode_t b), (a, b))
WATCHED(int, futimens, true, (int a, const timespec* b), (a, b))
WATCHED(int, ftruncate, true, (int a, off_t b), (a, b))
WATCHED(int, ftruncate64, true, (int a, off64_t b), (a, b))
WATCHED(int, fallocate, true, (int a, int b, off_t c, off_t d), (a, b, c, d))
WATCHED(int, fallocate64, true, (int a, int b, off64_t c, off64_t d), (a, b, c, d))
WATCHED(int, fsync, true, (int a), (a))
WATCHED(int, fdatasync, true, (int a), (a))
WATCHED(int, syncfs, true, (int a), (a))
WATCHED(int, setxattr, true, (const char* a, const char* b, const void* c, size_t d, int e),
        (a, b, c, d, e))
WATCHED(int, removexattr, true, (const char* a, const char* b), (a, b))
WATCHED(ssize_t, pwrite, true, (int a, const void* b, size_t c, off_t d), (a, b, c, d))
WATCHED(ssize_t, pwrite64, true, (int a, const void* b, size_t c, off64_t d), (a, b, c, d))
WATCHED(ssize_t, pread, false, (int a, void* b, size_t c, off_t d), (a, b, c, d))
WATCHED(ssize_t, pread64, false, (int a, void* b, size_t c, off64_t d), (a, b, c, d))
WATCHED(ssize_t, copy_file_range, true,
        (int a, off64_t* b, int c, off64_t* d, size_t e, unsigned f), (a, b, c, d, e, f))
WATCHED(int, statx, false, (int a, const char* b, int c, unsigned d, struct statx* e),
        (a, b, c, d, e))
// NOLINTEND(bugprone-macro-parentheses)
