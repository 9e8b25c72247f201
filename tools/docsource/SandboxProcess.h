#pragma once

#include <string>
#include <vector>

#include "platform/base/Result.h"

namespace tool {

/// Bubblewrap with these arguments (those behind its options included) and exactly this
/// environment, until it ends; its exit status, or 128 and the number of the signal that ended it.
/// Its application begins when its sandbox is recorded as `application` (platform/identity) and
/// runs under the system-call filter. It gets no descriptor but the standard streams, and is killed
/// with this process, which is killed with whoever started it.
qx::Result<int> runSandbox(const std::string& bubblewrap, const std::string& application,
                           std::vector<std::string> arguments,
                           std::vector<std::string> environment);

}  // namespace tool
