#pragma once

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"

namespace tool {

/// The filter of system calls that applications are run under (seccomp(2)), as a file that holds
/// its program for the Berkeley packet filter of the kernel, read from its beginning.
///
/// What an application needs no more than it needs another's documents fails with EPERM: tracing
/// and reading other processes, keyrings, mounts, namespaces, the kernel's own programs and
/// modules, terminal input in another's name, sockets beyond the local and the internet's, and all
/// system calls of another architecture. clone3(2), whose flags no filter can see, fails with
/// ENOSYS, so that libraries take clone(2).
qx::Result<qx::FileDescriptor> systemCallFilter();

}  // namespace tool
