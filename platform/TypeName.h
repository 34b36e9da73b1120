// Readable names of C++ types, for messages such as
// "QSBackupEntry required, but got QSTally 0x5581...".
#pragma once

#include <string>
#include <typeinfo>

namespace platform {

// The demangled name of a type ("QSBackupEntry", "std::string").
std::string typeName(const std::type_info& type);

template <class T>
std::string typeName() {
  return typeName(typeid(T));
}

}  // namespace platform
