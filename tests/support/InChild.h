#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

namespace qx::test {

/// Runs `body` in a forked child, for what changes a process for good (user, namespaces, what is
/// read from the environment once), and gives what it returned; -1 for a child that did not end by
/// itself. Not for a process that has other threads.
inline int inChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    const int status = body();
    std::fflush(nullptr);
    ::_exit(status);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

/// Root becomes an ordinary user, for good; anybody else stays who they are.
inline bool dropPrivileges() {
  return ::geteuid() != 0 || (::setegid(65534) == 0 && ::seteuid(65534) == 0);
}

}  // namespace qx::test
