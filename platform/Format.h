// printf-style formatting into a std::string.
//
// The system's log lines and descriptions are quoted as printf formats; the
// code keeps those texts and passes strings with "%s" and c_str().
#pragma once

#include <cstdarg>
#include <string>

namespace platform {

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char* fmt, va_list args);

// "YES" or "NO", the way booleans are printed in descriptions.
inline const char* yesNo(bool value) { return value ? "YES" : "NO"; }

}  // namespace platform
