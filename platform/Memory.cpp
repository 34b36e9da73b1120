#include "platform/Memory.h"

#include <malloc.h>

namespace platform {

void Memory::releaseFreedMemory() { ::malloc_trim(0); }

void Memory::keepLargeBlocksApart() { ::mallopt(M_MMAP_THRESHOLD, 256 * 1024); }

}  // namespace platform
