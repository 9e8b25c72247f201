#pragma once

namespace qx {

/// Has the allocator keep little that is free (mallopt(3)). By itself it keeps large blocks once it
/// has seen some, and a few clients that send the largest frames there are would leave a daemon
/// large for good; and it gives threads arenas of their own, each of which keeps what its threads
/// once needed. Call first thing in main.
void keepFreeMemorySmall();

/// Gives back what became free since a peak, pages between blocks in use included
/// (malloc_trim(3)). Takes a millisecond for some ten mebibytes, in which nobody allocates.
void giveFreeMemoryBack();

}  // namespace qx
