// Waiting for a condition with a deadline, instead of sleeping a fixed time.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace skerrow_test {

// Polls `condition` every millisecond until it holds (true) or `timeout` passes (false).
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace skerrow_test
