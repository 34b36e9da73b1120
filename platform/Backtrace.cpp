#include "platform/Backtrace.h"

#include <execinfo.h>

#include <cstdlib>

namespace platform {

std::vector<void*> Backtrace::capture(int maxFrames) {
  std::vector<void*> frames(static_cast<size_t>(maxFrames > 0 ? maxFrames : 0));
  if (frames.empty()) return frames;
  const int n = ::backtrace(frames.data(), maxFrames);
  frames.resize(static_cast<size_t>(n > 0 ? n : 0));
  return frames;
}

std::vector<std::string> Backtrace::symbolize(const std::vector<void*>& frames) {
  std::vector<std::string> out;
  if (frames.empty()) return out;
  char** symbols = ::backtrace_symbols(frames.data(), static_cast<int>(frames.size()));
  if (!symbols) return out;
  for (size_t i = 0; i < frames.size(); ++i) out.emplace_back(symbols[i] ? symbols[i] : "");
  std::free(symbols);
  return out;
}

}  // namespace platform
