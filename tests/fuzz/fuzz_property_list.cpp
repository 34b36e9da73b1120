// The property-list reader on arbitrary bytes (XML and binary): it must
// never crash, hang or leak, and whatever it reads must serialise again in
// both formats and read back.
#include <cstddef>
#include <cstdint>

#include "platform/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using platform::PropertyList;
  const auto value = PropertyList::fromBytes(data, size);
  if (!value) return 0;
  for (auto format : {PropertyList::Format::XML, PropertyList::Format::Binary}) {
    const auto bytes = PropertyList::toBytes(*value, format);
    if (!bytes) __builtin_trap();
    (void)PropertyList::fromBytes(*bytes);
    (void)value->description();
  }
  return 0;
}
