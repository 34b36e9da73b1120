#include "platform/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace platform {

std::string typeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                   std::free);
  if (status == 0 && demangled) return demangled.get();
  return type.name();
}

}  // namespace platform
