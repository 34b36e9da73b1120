// Extended attributes of files, never following a symbolic link at the path.
//
// The system names its attributes without a namespace
// ("com.qsc.backup.uid"); on Linux they live in the user namespace, so every
// name given here is stored as "user." + name.  File systems without user
// attributes (or items that cannot carry them) make every call fail cleanly:
// false or nothing, never an exception.
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

namespace platform {

class ExtendedAttributes {
 public:
  // The attribute's size in bytes; nothing when it is missing or cannot be read.
  static std::optional<size_t> size(const std::string& path, const std::string& name);
  // The attribute's value; nothing when missing or unreadable.
  static std::optional<Bytes> get(const std::string& path, const std::string& name);
  // Sets the attribute.  With `createOnly` the call fails when the attribute exists.
  static bool set(const std::string& path, const std::string& name, const Bytes& value, bool createOnly);
  static bool remove(const std::string& path, const std::string& name);

  // The name as stored on Linux.
  static std::string systemName(const std::string& name) { return "user." + name; }
};

}  // namespace platform
