#include "platform/base/FileDescriptor.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <optional>

namespace qx {
namespace {

std::optional<rlimit> limitBeforeRaise;

}  // namespace

void FileDescriptor::reset(int fd) {
  if (fd_ >= 0) {
    // Linux releases the number even when close(2) is interrupted, so there is no second try. The
    // errno of what failed before stays for whoever asks after the clean-up.
    const int kept = errno;
    ::close(fd_);
    errno = kept;
  }
  fd_ = fd;
}

FileDescriptor FileDescriptor::duplicate() const {
  return FileDescriptor(fd_ < 0 ? -1 : ::fcntl(fd_, F_DUPFD_CLOEXEC, 0));
}

void fillStandardDescriptors(StandardDescriptors closed) {
  // open(2) gives the lowest number that is free. O_PATH can be neither read nor written.
  const int how = closed == StandardDescriptors::fail ? O_PATH : O_RDWR;
  while (FileDescriptor file{::open("/dev/null", how)}) {
    if (file.get() > STDERR_FILENO) return;
    file.release();
  }
}

std::size_t raiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  if (!limitBeforeRaise) limitBeforeRaise = limit;
  // With CAP_SYS_RESOURCE as many as the kernel has (proc_sys_fs(5), nr_open).
  rlimit all = limit;
  if (std::ifstream("/proc/sys/fs/nr_open") >> all.rlim_max && all.rlim_max > limit.rlim_max) {
    all.rlim_cur = all.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &all);
    ::getrlimit(RLIMIT_NOFILE, &limit);
  }
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

void restoreDescriptorLimit(pid_t child) {
  if (limitBeforeRaise) ::prlimit(child, RLIMIT_NOFILE, &*limitBeforeRaise, nullptr);
}

}  // namespace qx
