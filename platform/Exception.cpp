#include "platform/Exception.h"

#include <cstdarg>

#include "platform/Format.h"

namespace platform {

Exception::Exception(std::string name, std::string reason)
    : name_(std::move(name)), reason_(std::move(reason)) {}

void Exception::raise(const std::string& name, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string reason = vformat(format, args);
  va_end(args);
  throw Exception(name, std::move(reason));
}

}  // namespace platform
