#include "platform/Uuid.h"

#include <uuid/uuid.h>

#include <cstring>

namespace platform {

UuidBytes generateTimeBasedUuid() {
  uuid_t raw;
  uuid_generate_time(raw);
  UuidBytes out;
  std::memcpy(out.data(), raw, out.size());
  return out;
}

}  // namespace platform
