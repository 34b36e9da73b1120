#include "platform/OVThread.h"

#include <gtest/gtest.h>

#include "platform/Exception.h"
#include "platform/Log.h"
#include "tests/support/Eventually.h"

using platform::OVThread;
using namespace std::chrono_literals;

namespace {
struct Target {
  std::atomic<int> received{0};
  std::shared_ptr<OVThread> ranOn;
  std::mutex mutex;
  void work(int value) {
    std::lock_guard<std::mutex> lock(mutex);
    ranOn = OVThread::currentThread();
    received = value;
  }
};
}  // namespace

TEST(OVThreadTest, DetachRunsTheOperationOnItsTargetWithTheArgument) {
  auto target = std::make_shared<Target>();
  auto thread = OVThread::detachNewThreadSelector_toTarget_withObject(&Target::work, target, 42);
  ASSERT_TRUE(thread->waitUntilFinished(10s));
  EXPECT_EQ(target->received.load(), 42);
  std::lock_guard<std::mutex> lock(target->mutex);
  EXPECT_EQ(target->ranOn, thread);
  EXPECT_NE(target->ranOn, OVThread::currentThread());
}

TEST(OVThreadTest, CurrentThreadIsStableAndHasItsOwnDictionary) {
  auto here = OVThread::currentThread();
  EXPECT_EQ(here, OVThread::currentThread());
  here->threadDictionary().threadSafeSetObject_forKey(std::any(5), "k");
  std::atomic<bool> otherSaw{true};
  auto t = OVThread::detachNewThread([&] { otherSaw = OVThread::currentThread()->threadDictionary().threadSafeObjectForKey("k").has_value(); });
  ASSERT_TRUE(t->waitUntilFinished(10s));
  EXPECT_FALSE(otherSaw.load());
  EXPECT_EQ(std::any_cast<int>(*here->threadDictionary().threadSafeObjectForKey("k")), 5);
  here->threadDictionary().threadSafeRemoveObjectForKey("k");
}

TEST(OVThreadTest, CancelFlagIsSetByAnotherThreadAndPolledByTheThread) {
  std::atomic<bool> started{false};
  auto t = OVThread::detachNewThread([&] {
    started = true;
    while (!OVThread::currentThread()->isCancelled()) std::this_thread::sleep_for(1ms);
  });
  ASSERT_TRUE(skerrow_test::eventually([&] { return started.load(); }));
  EXPECT_FALSE(t->isCancelled());
  EXPECT_FALSE(t->isFinished());
  t->cancel();
  EXPECT_TRUE(t->waitUntilFinished(10s));
  EXPECT_TRUE(t->isCancelled());
}

TEST(OVThreadTest, AnEscapingExceptionEndsOnlyThatThreadAndIsLogged) {
  platform::LogCapture log;
  auto t = OVThread::detachNewThread([] { platform::Exception::raise("TestException", "broken %d", 7); }, "worker");
  ASSERT_TRUE(t->waitUntilFinished(10s));
  EXPECT_EQ(log.count("Thread worker ended by exception TestException: broken 7"), 1u);
}

TEST(OVThreadTest, MainThreadMark) {
  std::atomic<bool> otherIsMain{true};
  OVThread::markCurrentAsMainThread();
  EXPECT_TRUE(OVThread::isMainThread());
  auto t = OVThread::detachNewThread([&] { otherIsMain = OVThread::isMainThread(); });
  ASSERT_TRUE(t->waitUntilFinished(10s));
  EXPECT_FALSE(otherIsMain.load());
}
