// The time left until a deadline on the steady clock, never negative: for
// waits that share one deadline among several steps.
#pragma once

#include <chrono>

namespace platform {

inline std::chrono::milliseconds timeLeftUntil(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? left : std::chrono::milliseconds(0);
}

}  // namespace platform
