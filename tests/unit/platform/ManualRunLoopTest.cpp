#include "platform/ManualRunLoop.h"

#include <gtest/gtest.h>

#include <thread>

using platform::ManualRunLoop;

TEST(ManualRunLoopTest, RepeatingTimerFiresAtItsPeriod) {
  ManualRunLoop loop(1000.0);
  std::vector<double> fired;
  loop.addRepeatingTimer(60.0, [&] { fired.push_back(loop.now()); });
  loop.advanceBy(59.9);
  EXPECT_TRUE(fired.empty());
  loop.advanceBy(300.1);
  EXPECT_EQ(fired, (std::vector<double>{1060.0, 1120.0, 1180.0, 1240.0, 1300.0, 1360.0}));
  EXPECT_EQ(loop.now(), 1360.0);
}

TEST(ManualRunLoopTest, TimersFireInTimeOrderWithPostedWorkBetween) {
  ManualRunLoop loop(0);
  std::vector<std::string> order;
  loop.addRepeatingTimer(10, [&] {
    order.push_back("ten@" + std::to_string(static_cast<int>(loop.now())));
    loop.post([&] { order.push_back("posted"); });
  });
  loop.addOneShotTimer(15, [&] { order.push_back("once@15"); });
  loop.advanceBy(20);
  EXPECT_EQ(order, (std::vector<std::string>{"ten@10", "posted", "once@15", "ten@20", "posted"}));
  EXPECT_EQ(loop.timerCount(), 1u);
}

TEST(ManualRunLoopTest, RemovedTimerNeverFires) {
  ManualRunLoop loop;
  int fired = 0;
  auto id = loop.addRepeatingTimer(1, [&] { ++fired; });
  loop.advanceBy(2.5);
  loop.removeSource(id);
  loop.advanceBy(10);
  EXPECT_EQ(fired, 2);
}

TEST(ManualRunLoopTest, NextPassRunsOnTheFollowingPassOnly) {
  ManualRunLoop loop;
  std::vector<int> order;
  loop.post([&] {
    loop.nextPass([&] { order.push_back(2); });
    order.push_back(1);
  });
  EXPECT_EQ(loop.runPending(), 1u);
  EXPECT_EQ(order, (std::vector<int>{1}));
  EXPECT_EQ(loop.runPending(), 1u);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(ManualRunLoopTest, RunServesOtherThreadsUntilStop) {
  ManualRunLoop loop;
  std::thread::id loopThread = std::this_thread::get_id();
  std::atomic<bool> ranOnLoop{false};
  std::thread other([&] {
    EXPECT_TRUE(loop.postAndWait([&] { ranOnLoop = std::this_thread::get_id() == loopThread; }));
    loop.stop();
  });
  EXPECT_EQ(loop.run(), 0u);
  other.join();
  EXPECT_TRUE(ranOnLoop.load());
  EXPECT_FALSE(loop.post([] {}));
}

TEST(ManualRunLoopTest, IoSourcesAreTriggeredByHand) {
  ManualRunLoop loop;
  uint32_t got = 0;
  auto id = loop.addIoSource(-1, nullptr, [&](uint32_t revents) { got = revents; });
  loop.triggerIo(id, 5);
  EXPECT_EQ(got, 5u);
}
