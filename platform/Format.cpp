#include "platform/Format.h"

#include <cstdio>
#include <vector>

namespace platform {

std::string vformat(const char* fmt, va_list args) {
  char small[256];
  va_list copy;
  va_copy(copy, args);
  int needed = std::vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (needed < 0) return std::string();
  if (static_cast<size_t>(needed) < sizeof small) return std::string(small, static_cast<size_t>(needed));
  std::string out(static_cast<size_t>(needed) + 1, '\0');
  std::vsnprintf(out.data(), out.size(), fmt, args);
  out.resize(static_cast<size_t>(needed));
  return out;
}

std::string format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string out = vformat(fmt, args);
  va_end(args);
  return out;
}

}  // namespace platform
