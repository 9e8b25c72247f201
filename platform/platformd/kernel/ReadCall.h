#pragma once

#include <sys/types.h>

#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {

/// What a thread that waits to access a file is about to do.
enum class ReadCall {
  /// It copies bytes out of the file, and its process has the file open only for reading: it may go
  /// on when those bytes are there.
  yes,
  /// It needs the whole file. Either it writes or executes the file; or it maps it, and the kernel
  /// lets a mapping grow without asking (mremap(2)); or what it does cannot be told (io_uring(7)).
  no,
  /// It has not fallen asleep yet, so its call cannot be seen.
  unknown,
};

/// Finds out from procfs (proc_pid_syscall(5), proc_pid_fdinfo(5)). The thread must be waiting for
/// permission, so that nothing of this changes meanwhile. Any thread may call it.
ReadCall readCallOf(pid_t thread, const FileIdentity& file);

}  // namespace qx::kernel
