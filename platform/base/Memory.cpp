#include "platform/base/Memory.h"

#include <malloc.h>

namespace qx {

void returnLargeBlocks() {
  constexpr int large = 256 << 10;
  mallopt(M_MMAP_THRESHOLD, large);
}

}  // namespace qx
