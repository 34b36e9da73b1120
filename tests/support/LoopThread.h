// An SdEventRunLoop created and run on a thread of its own, for code that
// posts to it from another thread (tests and benchmarks).  The loop object
// outlives its thread, so it can still be asked things after it stopped.
#pragma once

#include <future>
#include <memory>
#include <thread>

#include "platform/SdEventRunLoop.h"

namespace skerrow_test {

class LoopThread {
 public:
  LoopThread() {
    std::promise<void> ready;
    thread_ = std::thread([this, &ready] {
      loop_ = std::make_unique<platform::SdEventRunLoop>();
      loopThread_ = std::this_thread::get_id();
      ready.set_value();
      left_ = loop_->run();
    });
    ready.get_future().wait();
  }
  ~LoopThread() { stopAndJoin(); }
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  platform::SdEventRunLoop& loop() { return *loop_; }
  std::thread::id id() const { return loopThread_; }
  // Stops the loop, waits for its thread, answers run's count of tasks left.
  size_t stopAndJoin() {
    if (thread_.joinable()) {
      loop_->stop();
      thread_.join();
    }
    return left_;
  }

 private:
  std::unique_ptr<platform::SdEventRunLoop> loop_;
  std::thread::id loopThread_;
  std::thread thread_;
  size_t left_ = 0;
};

}  // namespace skerrow_test
