#include "Engine/pipeline/QSIdleWait.h"

#include <chrono>

void QSIdleWait::sleep(uint32_t microseconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  condition_.wait_for(lock, std::chrono::microseconds(microseconds), [this] { return woken_; });
  woken_ = false;
}

void QSIdleWait::wake() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    woken_ = true;
  }
  condition_.notify_all();
}
