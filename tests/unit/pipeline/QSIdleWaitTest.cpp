#include "Engine/pipeline/QSIdleWait.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

constexpr uint32_t kMinute = 60u * 1000u * 1000u;

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST(QSIdleWaitTest, AWakeBeforeTheSleepEndsItAtOnce) {
  QSIdleWait wait;
  wait.wake();
  const auto start = std::chrono::steady_clock::now();
  wait.sleep(kMinute);
  EXPECT_LT(secondsSince(start), 30.0);
}

TEST(QSIdleWaitTest, AWakeFromAnotherThreadEndsTheSleep) {
  QSIdleWait wait;
  std::thread waker([&wait] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    wait.wake();
  });
  const auto start = std::chrono::steady_clock::now();
  wait.sleep(kMinute);
  EXPECT_LT(secondsSince(start), 30.0);
  waker.join();
}

TEST(QSIdleWaitTest, AWakeIsUsedUpByOneSleep) {
  QSIdleWait wait;
  wait.wake();
  wait.wake();
  wait.sleep(kMinute);
  const auto start = std::chrono::steady_clock::now();
  wait.sleep(20000);
  EXPECT_GE(secondsSince(start), 0.019);
}
