#pragma once

#include <string>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Result.h"

namespace tool {

/// What posix_spawn(3) wants of words that outlive it.
std::vector<char*> pointersTo(std::vector<std::string>& words);

/// Bubblewrap with these arguments (those behind its options included) and exactly this
/// environment, until it ends; its exit status, or 128 and the number of the signal that ended it.
/// Its application begins when its sandbox is recorded as `application` (platform/identity) and
/// runs under the system-call filter. Of this one's descriptors bubblewrap gets `inherited`, and
/// the application none but the standard streams. It is killed with this process, which is killed
/// with whoever started it.
qx::Result<int> runSandbox(const std::string& bubblewrap, const std::string& application,
                           std::vector<std::string> arguments, std::vector<std::string> environment,
                           const std::vector<qx::FileDescriptor>& inherited);

}  // namespace tool
