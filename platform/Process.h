// Facts about the running process.
#pragma once

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
};

}  // namespace platform
