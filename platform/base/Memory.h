#pragma once

namespace qx {

/// Has the allocator give large blocks back to the system as soon as they are freed (mallopt(3)).
/// By itself it keeps such blocks once it has seen some, and a few clients that send the largest
/// frames there are would leave a daemon large for good. Call first thing in main.
void returnLargeBlocks();

}  // namespace qx
