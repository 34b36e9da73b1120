// Facts about the running process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

class Process {
 public:
  // The absolute path of the running executable ("" if it cannot be read).
  static std::string executablePath();
  // The folder that holds it.
  static std::string executableDirectory();
  // The process's arguments, the program path first.
  static std::vector<std::string> arguments();
  // An environment variable, or nothing.
  static std::optional<std::string> environmentVariable(const std::string& name);
  // Ends the process at once with `status`: standard streams are flushed,
  // nothing else runs (no destructors, no exit handlers).
  [[noreturn]] static void terminateImmediately(int status);
  // The computer's name as users see it: PRETTY_HOSTNAME of /etc/machine-info,
  // else the host name.
  static std::string machineName();
  static uint32_t effectiveUID();
};

}  // namespace platform
