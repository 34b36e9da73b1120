#include "platform/Memory.h"

#include <malloc.h>

namespace platform {

void Memory::releaseFreedMemory() { ::malloc_trim(0); }

}  // namespace platform
