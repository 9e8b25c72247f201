#pragma once

namespace qx {

/// Makes the allocator keep little free memory (mallopt(3)). By itself it keeps large blocks once
/// it has seen some, so a few clients that send the largest frames would leave a daemon large for
/// ever; and it gives threads arenas of their own, each of which keeps what its threads once
/// needed. Call this first in main.
void keepFreeMemorySmall();

/// Gives back what has become free since a peak, including pages between blocks in use
/// (malloc_trim(3)). It takes about a millisecond for ten mebibytes; nobody can allocate meanwhile.
void giveFreeMemoryBack();

}  // namespace qx
