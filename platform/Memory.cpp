#include "platform/Memory.h"

#include <malloc.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace platform {
namespace {

uint64_t statusField(const char* field) {
  std::FILE* status = std::fopen("/proc/self/status", "re");
  if (!status) return 0;
  char line[256];
  uint64_t value = 0;
  const size_t length = std::strlen(field);
  while (std::fgets(line, sizeof line, status)) {
    if (std::strncmp(line, field, length) == 0 && line[length] == ':') {
      std::sscanf(line + length + 1, "%" SCNu64, &value);
      break;
    }
  }
  std::fclose(status);
  return value;
}

}  // namespace

void Memory::releaseFreedMemory() { ::malloc_trim(0); }

uint64_t Memory::residentKiB() { return statusField("VmRSS"); }

uint64_t Memory::peakResidentKiB() { return statusField("VmHWM"); }

}  // namespace platform
