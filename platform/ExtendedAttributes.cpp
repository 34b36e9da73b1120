#include "platform/ExtendedAttributes.h"

#include <sys/xattr.h>

#include <cerrno>

namespace platform {

std::optional<size_t> ExtendedAttributes::size(const std::string& path, const std::string& name) {
  ssize_t n = ::lgetxattr(path.c_str(), systemName(name).c_str(), nullptr, 0);
  if (n < 0) return std::nullopt;
  return static_cast<size_t>(n);
}

std::optional<Bytes> ExtendedAttributes::get(const std::string& path, const std::string& name) {
  const std::string full = systemName(name);
  for (int attempt = 0; attempt < 4; ++attempt) {
    ssize_t n = ::lgetxattr(path.c_str(), full.c_str(), nullptr, 0);
    if (n < 0) return std::nullopt;
    Bytes out(static_cast<size_t>(n));
    if (n == 0) return out;
    ssize_t got = ::lgetxattr(path.c_str(), full.c_str(), out.data(), out.size());
    if (got >= 0) {
      out.resize(static_cast<size_t>(got));
      return out;
    }
    if (errno != ERANGE) return std::nullopt;  // ERANGE: the value grew in between; ask again
  }
  return std::nullopt;
}

bool ExtendedAttributes::set(const std::string& path, const std::string& name, const Bytes& value, bool createOnly) {
  return ::lsetxattr(path.c_str(), systemName(name).c_str(), value.data(), value.size(),
                     createOnly ? XATTR_CREATE : 0) == 0;
}

bool ExtendedAttributes::remove(const std::string& path, const std::string& name) {
  return ::lremovexattr(path.c_str(), systemName(name).c_str()) == 0;
}

}  // namespace platform
