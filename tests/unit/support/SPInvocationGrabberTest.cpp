#include "Engine/support/SPInvocationGrabber.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/ManualRunLoop.h"
#include "platform/SdEventRunLoop.h"
#include "tests/support/Eventually.h"

namespace grabber_test {

class Target {
 public:
  std::atomic<int> value{0};
  std::atomic<int> calls{0};
  std::thread::id ranOn;
  std::mutex mutex;
  void record(int v) {
    std::lock_guard<std::mutex> lock(mutex);
    ranOn = std::this_thread::get_id();
    value = v;
    ++calls;
  }
  void keep(std::shared_ptr<int> argument) { value = *argument; }
  void fail() { platform::Exception::raise("TestException", "broken"); }
};

// Scheduled from a named function so that the saved stack can be recognised.
__attribute__((noinline)) void ScheduleFailingBackgroundCallForTest(std::shared_ptr<Target> target) {
  inBackground(std::move(target))->call(&Target::fail);
}

}  // namespace grabber_test

using grabber_test::Target;

namespace {
// Makes `loop` the main loop for the test's duration.
struct MainLoopScope {
  explicit MainLoopScope(platform::RunLoop* loop) : previous(platform::RunLoop::main()) { platform::RunLoop::setMain(loop); }
  ~MainLoopScope() { platform::RunLoop::setMain(previous); }
  platform::RunLoop* previous;
};
}  // namespace

TEST(SPInvocationGrabberTest, OnMainAsyncFalseFromTheMainThreadRunsAtOnceAndReturnsAfterIt) {
  platform::SdEventRunLoop loop;
  MainLoopScope scope(&loop);
  auto target = std::make_shared<Target>();
  onMainAsync(target, false)->call(&Target::record, 5);
  EXPECT_EQ(target->value.load(), 5);
  EXPECT_EQ(target->ranOn, std::this_thread::get_id());
}

TEST(SPInvocationGrabberTest, OnMainFromAnotherThreadRunsOnTheMainThread) {
  platform::ManualRunLoop loop;
  MainLoopScope scope(&loop);
  auto target = std::make_shared<Target>();
  std::thread other([&] {
    onMainAsync(target, true)->call(&Target::record, 1);  // does not wait
    onMainAsync(target, false)->call(&Target::record, 2);  // waits until it ran
    EXPECT_EQ(target->value.load(), 2);
    loop.stop();
  });
  loop.run();
  other.join();
  EXPECT_EQ(target->calls.load(), 2);
  EXPECT_EQ(target->ranOn, std::this_thread::get_id());
}

TEST(SPInvocationGrabberTest, BackgroundCallThatRaisesLogsTheStackOfTheSchedulingThread) {
  platform::LogCapture log;
  testing::internal::CaptureStdout();
  grabber_test::ScheduleFailingBackgroundCallForTest(std::make_shared<Target>());
  const bool ended = skerrow_test::eventually([&] { return log.contains("ended by exception TestException"); });
  const std::string printed = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(ended);
  EXPECT_EQ(log.count("SPInvocationGrabber's target raised TestException:\n\tbroken\nInvocation was originally scheduled at:"),
            1u);
  EXPECT_NE(printed.find("ScheduleFailingBackgroundCallForTest"), std::string::npos) << printed;
  EXPECT_EQ(printed.find("runInBackground"), std::string::npos) << printed;
  EXPECT_EQ(printed.back(), '\n');
}

TEST(SPInvocationGrabberTest, GrabberNeverSentAMethodDoesNothingAndReleasesItsTarget) {
  auto target = std::make_shared<Target>();
  std::weak_ptr<Target> watch = target;
  grab(target);
  target.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(SPInvocationGrabberTest, NextRunloopSchedulesForTheNextPassNeverInline) {
  platform::SdEventRunLoop loop;
  auto target = std::make_shared<Target>();
  int seenRightAfter = -1;
  loop.addOneShotTimer(0, [&] {
    nextRunloop(target)->call(&Target::record, 7);
    seenRightAfter = target->value.load();
    loop.addOneShotTimer(0.05, [&] { loop.stop(); });
  });
  loop.run();
  EXPECT_EQ(seenRightAfter, 0);
  EXPECT_EQ(target->value.load(), 7);
}

TEST(SPInvocationGrabberTest, InvokeAfterFiresWhenTheDelayHasPassed) {
  platform::ManualRunLoop loop;
  auto target = std::make_shared<Target>();
  invokeAfter(target, 30.0)->call(&Target::record, 3);
  loop.advanceBy(29.9);
  EXPECT_EQ(target->calls.load(), 0);
  loop.advanceBy(0.2);
  EXPECT_EQ(target->calls.load(), 1);
  EXPECT_EQ(target->value.load(), 3);
}

TEST(SPInvocationGrabberTest, InvokeAfterWithoutARunLoopRaises) {
  std::atomic<bool> raised{false};
  std::thread([&] {
    try {
      invokeAfter(std::make_shared<Target>(), 1.0);
    } catch (const platform::Exception&) {
      raised = true;
    }
  }).join();
  EXPECT_TRUE(raised.load());
}

TEST(SPInvocationGrabberTest, TargetAndArgumentsAreReleasedOnceTheCallRan) {
  auto target = std::make_shared<Target>();
  auto argument = std::make_shared<int>(9);
  std::weak_ptr<Target> watchTarget = target;
  std::weak_ptr<int> watchArgument = argument;
  auto grabber = grab(target);
  grabber->call(&Target::keep, argument);
  target.reset();
  argument.reset();
  EXPECT_FALSE(watchTarget.expired());
  EXPECT_FALSE(watchArgument.expired());
  grabber->invoke();
  EXPECT_TRUE(watchTarget.expired());
  EXPECT_TRUE(watchArgument.expired());
  EXPECT_FALSE(grabber->hasInvocation());
  grabber->invoke();  // a second invoke has nothing to run
}

TEST(SPInvocationGrabberTest, RaisingCallOnTheMainLoopIsLoggedAndRaisedAgainThere) {
  platform::SdEventRunLoop loop;
  MainLoopScope scope(&loop);
  platform::LogCapture log;
  testing::internal::CaptureStdout();
  std::thread other([&] { onMainAsync(std::make_shared<Target>(), true)->call(&Target::fail); });
  other.join();
  EXPECT_THROW(loop.run(), platform::Exception);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(log.count("SPInvocationGrabber's target raised TestException:\n\tbroken\nInvocation was originally scheduled at:"),
            1u);
}

TEST(SPInvocationGrabberTest, StackIsSavedWithAtMost128Frames) {
  auto grabber = grab(std::make_shared<Target>());
  EXPECT_GT(grabber->frameCount(), 3);
  EXPECT_LE(grabber->frameCount(), SPInvocationGrabberBase::kMaxFrames);
  auto unsaved = SPInvocationGrabber<Target>::initWithObject_stacktraceSaving(std::make_shared<Target>(), false);
  EXPECT_EQ(unsaved->frameCount(), 0);
}
