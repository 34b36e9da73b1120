// Call stacks: return addresses captured cheaply now, turned into symbolic
// text only when printed.
#pragma once

#include <string>
#include <vector>

namespace platform {

class Backtrace {
 public:
  // Up to `maxFrames` return addresses of the calling thread's stack, innermost first.
  static std::vector<void*> capture(int maxFrames);
  // One line of text per address ("binary(symbol+offset) [address]").
  static std::vector<std::string> symbolize(const std::vector<void*>& frames);
};

}  // namespace platform
