// A failed file operation: the system's error number and message, and the
// path it concerned.  `localizedFailureReason` is the text shown to users
// ("Unable to copy /home/ann/a.txt: No space left on device").
#pragma once

#include <string>

namespace platform {

struct FileError {
  std::string domain;  // "NSPOSIXErrorDomain" for system errors, "NSOSStatusErrorDomain" for the legacy copy
  int code = 0;        // errno, or 0
  std::string path;
  std::string message;

  std::string localizedFailureReason() const { return path.empty() ? message : message + ": " + path; }
  bool empty() const { return domain.empty() && code == 0 && message.empty(); }
};

inline constexpr const char* kPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kOSStatusErrorDomain = "NSOSStatusErrorDomain";

// A system error (errno `code`) about `path`, with `action` as the start of the message.
FileError posixError(int code, const std::string& path, const std::string& action);

}  // namespace platform
