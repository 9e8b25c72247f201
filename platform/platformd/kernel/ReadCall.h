#pragma once

#include <sys/types.h>

#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {

/// How a thread that waits to get at a file is about to.
enum class ReadCall {
  /// It copies bytes out of the file, and its process has the file open for reading only: it may go
  /// on when those bytes are there.
  yes,
  /// It needs the whole file: it writes or executes it, or maps it, since the kernel lets a mapping
  /// grow without asking (mremap(2)); or it cannot be told (io_uring(7)).
  no,
  /// It has not fallen asleep yet, so that its call cannot be seen.
  unknown,
};

/// From procfs (proc_pid_syscall(5), proc_pid_fdinfo(5)); the thread must be waiting for leave, so
/// that nothing of this changes meanwhile. Any thread.
ReadCall readCallOf(pid_t thread, const FileIdentity& file);

}  // namespace qx::kernel
