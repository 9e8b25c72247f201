// System calls with all permissions that the owner of a file can have.

#include "sdk/src/AsOwner.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

namespace docsource {
namespace {

constexpr mode_t permissions = 07777;
constexpr mode_t ownerAccess = S_IRUSR | S_IWUSR;
constexpr std::size_t stackSize = 256U << 10U;

struct Work {
  const std::function<int()>* call;
  unsigned user;
  unsigned group;
  bool isDone;
  int result;
  int problem;
};

bool put(const char* path, const char* text) {
  const int file = ::open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0) return false;
  const auto size = static_cast<ssize_t>(std::strlen(text));
  const bool isPut = ::write(file, text, static_cast<std::size_t>(size)) == size;
  ::close(file);
  return isPut;
}

/// The other process: in the memory of this one, whose calling thread stands still meanwhile.
int workInside(void* argument) {
  auto& work = *static_cast<Work*>(argument);
  // It has all of this process open, and ends with it.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::array<char, 64> user{};
  std::array<char, 64> group{};
  std::snprintf(user.data(), user.size(), "%u %u 1", work.user, work.user);
  std::snprintf(group.data(), group.size(), "%u %u 1", work.group, work.group);
  const bool isIn = put("/proc/self/uid_map", user.data()) && put("/proc/self/setgroups", "deny") &&
                    put("/proc/self/gid_map", group.data());
  if (isIn) {
    work.result = (*work.call)();
    work.problem = errno;
    work.isDone = true;
  }
  ::_exit(0);
}

/// What the call returns in a namespace of its own; absent when there is none to be had.
std::optional<int> callInNamespace(const std::function<int()>& call) {
  void* stack = ::mmap(nullptr, stackSize, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stack == MAP_FAILED) return std::nullopt;
  Work work{&call, ::geteuid(), ::getegid(), false, -1, EACCES};
  // No handler of this process runs in the other one.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  // Without a signal at its end, so that nobody who waits for children meets it.
  const pid_t process = ::clone(workInside, static_cast<char*>(stack) + stackSize,
                                CLONE_VM | CLONE_VFORK | CLONE_FILES | CLONE_NEWUSER, &work);
  while (process > 0 && ::waitpid(process, nullptr, __WCLONE) < 0 && errno == EINTR) {
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  ::munmap(stack, stackSize);
  if (!work.isDone) return std::nullopt;
  errno = work.problem;
  return work.result;
}

}  // namespace

int asOwner(int file, const std::function<int()>& call) {
  int result = call();
  struct stat status {};
  if (result != -1 || errno != EACCES) return result;
  const auto denied = [] {
    errno = EACCES;
    return -1;
  };
  if (::fstat(file, &status) != 0 || status.st_uid != ::geteuid()) return denied();
  if (const auto done = callInNamespace(call); done && (*done != -1 || errno != EACCES)) {
    return *done;
  }
  // Just before they are changed: a program may have changed them meanwhile.
  if (::fstat(file, &status) != 0) return denied();
  const mode_t mode = status.st_mode & permissions;
  const mode_t given = mode | ownerAccess;
  if (mode == given) return call();
  const auto path = "/proc/self/fd/" + std::to_string(file);
  if (::chmod(path.c_str(), given) != 0) return denied();
  result = call();
  const int problem = errno;
  const bool isStill = ::fstat(file, &status) == 0 && (status.st_mode & permissions) == given;
  if (isStill) ::chmod(path.c_str(), mode);
  errno = problem;
  return result;
}

}  // namespace docsource
