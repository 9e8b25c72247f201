#include "platform/base/Memory.h"

#include <malloc.h>

namespace qx {

void keepFreeMemorySmall() {
  constexpr int large = 256 << 10;
  mallopt(M_MMAP_THRESHOLD, large);
  mallopt(M_ARENA_MAX, 1);
}

void giveFreeMemoryBack() { malloc_trim(0); }

}  // namespace qx
