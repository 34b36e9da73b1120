// The one exception type of the system.
//
// Failures are normally reported as booleans, absent results or status codes.
// An Exception is raised only by the checked casts, re-raised by the
// cross-thread invoker after it has logged, and used for a vanished peer on
// the bus.  It carries a name (the kind of failure, such as
// "NSInvalidArgumentException") and a human-readable reason.
#pragma once

#include <stdexcept>
#include <string>

namespace platform {

class Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason);

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }

  // The text written where the exception is logged with "%@": the reason.
  std::string description() const { return reason_; }

  const char* what() const noexcept override { return reason_.c_str(); }

  // Throws an Exception of the given name; the reason is a printf format.
  [[noreturn]] static void raise(const std::string& name, const char* format, ...)
      __attribute__((format(printf, 2, 3)));

 private:
  std::string name_;
  std::string reason_;
};

// Names used by the system.
inline constexpr const char* kInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* kInternalInconsistencyException = "NSInternalInconsistencyException";
inline constexpr const char* kPortTimeoutException = "NSPortTimeoutException";
inline constexpr const char* kObjectInaccessibleException = "NSObjectInaccessibleException";

}  // namespace platform
