#include "platform/base/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace qx {

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

void fillStandardDescriptors() {
  // open(2) gives the lowest number that is free.
  while (FileDescriptor file{::open("/dev/null", O_RDWR)}) {
    if (file.get() > STDERR_FILENO) return;
    file.release();
  }
}

}  // namespace qx
