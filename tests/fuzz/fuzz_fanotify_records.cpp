// The decoder of fanotify's event records on arbitrary bytes: it must never
// crash, read outside the buffer, hang or leak, and what it makes of them
// must be one of the events a file system without a watched folder can give
// (dropped events or an undecodable record), each of that file system.
#include <cstddef>
#include <cstdint>

#include "platform/FanotifyEventSource.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using platform::FileSystemEvent;
  constexpr uint64_t kDevice = 0x0801;
  const auto events = platform::FanotifyEventSource::decodeRecords(reinterpret_cast<const char*>(data), size, kDevice);
  for (const FileSystemEvent& event : events) {
    if (event.device != kDevice) __builtin_trap();
    if (event.kind != FileSystemEvent::Kind::Dropped && event.kind != FileSystemEvent::Kind::Undecodable)
      __builtin_trap();
    if (!event.paths.empty()) __builtin_trap();
  }
  return 0;
}
