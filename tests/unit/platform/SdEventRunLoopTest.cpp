#include "platform/SdEventRunLoop.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <future>
#include <map>
#include <thread>
#include <vector>

#include "platform/Exception.h"
#include "tests/support/Eventually.h"
#include "tests/support/LoopThread.h"

using platform::RunLoop;
using platform::SdEventRunLoop;
using namespace std::chrono_literals;

using skerrow_test::LoopThread;

TEST(SdEventRunLoopTest, LoopBelongsToItsCreatingThread) {
  SdEventRunLoop loop;
  EXPECT_EQ(RunLoop::current(), &loop);
  EXPECT_TRUE(loop.isLoopThread());
  std::atomic<bool> otherIsLoopThread{true};
  std::thread([&] { otherIsLoopThread = loop.isLoopThread(); }).join();
  EXPECT_FALSE(otherIsLoopThread.load());
}

TEST(SdEventRunLoopTest, RepeatingTimerFiresAtItsPeriodOnTheRealClock) {
  SdEventRunLoop loop;
  std::vector<double> fired;
  const double start = loop.now();
  loop.addRepeatingTimer(0.05, [&] {
    fired.push_back(loop.now());
    if (fired.size() == 5) loop.stop();
  });
  loop.addOneShotTimer(10.0, [&] { loop.stop(); });  // generous deadline
  loop.run();
  ASSERT_EQ(fired.size(), 5u);
  for (size_t i = 0; i < fired.size(); ++i) {
    const double due = start + 0.05 * static_cast<double>(i + 1);
    EXPECT_GE(fired[i], due - 0.0005) << i;
    EXPECT_LT(fired[i], due + 0.25) << i;  // generous for a loaded machine; typical lateness is under 2 ms
  }
}

TEST(SdEventRunLoopTest, OneShotTimerFiresOnceAndRemovedTimerNever) {
  SdEventRunLoop loop;
  int once = 0, removed = 0;
  loop.addOneShotTimer(0.01, [&] { ++once; });
  auto id = loop.addOneShotTimer(0.01, [&] { ++removed; });
  loop.removeSource(id);
  loop.addOneShotTimer(0.1, [&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(once, 1);
  EXPECT_EQ(removed, 0);
}

TEST(SdEventRunLoopTest, TimerMayRemoveItself) {
  SdEventRunLoop loop;
  int fired = 0;
  RunLoop::SourceId id = 0;
  id = loop.addRepeatingTimer(0.001, [&] {
    ++fired;
    loop.removeSource(id);
  });
  loop.addOneShotTimer(0.05, [&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(fired, 1);
}

TEST(SdEventRunLoopTest, PostsFromEightThreadsAllRunOnTheLoopThreadInOrderPerThread) {
  constexpr int kThreads = 8, kPosts = 10000;
  LoopThread lt;
  std::vector<std::vector<int>> seen(kThreads);  // touched only on the loop thread
  std::atomic<int> wrongThread{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t)
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPosts; ++i)
        ASSERT_TRUE(lt.loop().post([&, t, i] {
          if (std::this_thread::get_id() != lt.id()) ++wrongThread;
          seen[static_cast<size_t>(t)].push_back(i);
        }));
    });
  for (auto& p : posters) p.join();
  ASSERT_TRUE(lt.loop().postAndWait([] {}));  // everything posted before this has run
  EXPECT_EQ(wrongThread.load(), 0);
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[static_cast<size_t>(t)].size(), static_cast<size_t>(kPosts)) << t;
    for (int i = 0; i < kPosts; ++i) ASSERT_EQ(seen[static_cast<size_t>(t)][static_cast<size_t>(i)], i);
  }
}

TEST(SdEventRunLoopTest, WaitingHandOverReturnsAfterTheWorkRan) {
  LoopThread lt;
  bool ran = false;
  std::thread::id ranOn;
  ASSERT_TRUE(lt.loop().postAndWait([&] {
    std::this_thread::sleep_for(20ms);
    ranOn = std::this_thread::get_id();
    ran = true;
  }));
  EXPECT_TRUE(ran);
  EXPECT_EQ(ranOn, lt.id());
}

TEST(SdEventRunLoopTest, WaitingHandOverOnTheLoopThreadRunsAtOnce) {
  SdEventRunLoop loop;
  bool ran = false;
  EXPECT_TRUE(loop.postAndWait([&] { ran = true; }));
  EXPECT_TRUE(ran);
}

TEST(SdEventRunLoopTest, NextPassNeverRunsInline) {
  SdEventRunLoop loop;
  std::vector<std::string> order;
  loop.addOneShotTimer(0, [&] {
    loop.nextPass([&] {
      order.push_back("deferred");
      loop.stop();
    });
    order.push_back("after scheduling");
  });
  loop.run();
  EXPECT_EQ(order, (std::vector<std::string>{"after scheduling", "deferred"}));
}

TEST(SdEventRunLoopTest, TimersAndSourcesOnlyFromTheLoopThread) {
  SdEventRunLoop loop;
  std::atomic<bool> raised{false};
  std::thread([&] {
    try {
      loop.addOneShotTimer(1, [] {});
    } catch (const platform::Exception&) {
      raised = true;
    }
  }).join();
  EXPECT_TRUE(raised.load());
}

TEST(SdEventRunLoopTest, PostAfterStopIsRefusedAndWaitersAreReleased) {
  auto lt = std::make_unique<LoopThread>();
  SdEventRunLoop* loop = &lt->loop();
  std::promise<void> blockerStarted;
  std::promise<void> release;
  auto releaseFuture = release.get_future().share();
  loop->post([&] {
    blockerStarted.set_value();
    releaseFuture.wait();
  });
  blockerStarted.get_future().wait();
  // Queued behind the blocker: a plain post and a waiter.
  EXPECT_TRUE(loop->post([] {}));
  std::atomic<int> waiterResult{-1};
  std::thread waiter([&] { waiterResult = loop->postAndWait([] {}) ? 1 : 0; });
  ASSERT_TRUE(skerrow_test::eventually([&] { return loop->pendingTaskCount() == 2; }));
  loop->stop();
  release.set_value();
  waiter.join();
  EXPECT_EQ(waiterResult.load(), 0);
  EXPECT_EQ(lt->stopAndJoin(), 2u);
  EXPECT_FALSE(loop->post([] {}));
}

TEST(SdEventRunLoopTest, ExceptionEscapingACallbackStopsTheLoopAndLeavesRun) {
  SdEventRunLoop loop;
  int later = 0;
  loop.post([] { platform::Exception::raise("TestException", "from a task"); });
  loop.post([&] { ++later; });
  EXPECT_THROW(loop.run(), platform::Exception);
  EXPECT_EQ(later, 0);
}

TEST(SdEventRunLoopTest, IoSourceWithPrepareAndDeadline) {
  SdEventRunLoop loop;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::vector<uint32_t> events;
  int prepares = 0;
  const double deadline = loop.now() + 0.05;
  loop.addIoSource(
      fds[0],
      [&] {
        ++prepares;
        return RunLoop::IoInterest{0x001, events.empty() ? std::optional<double>(deadline) : std::nullopt};
      },
      [&](uint32_t revents) {
        events.push_back(revents);
        if (revents) {
          char c;
          EXPECT_EQ(read(fds[0], &c, 1), 1);
          loop.stop();
        } else {
          EXPECT_EQ(write(fds[1], "x", 1), 1);  // the deadline passed: now make the pipe readable
        }
      });
  loop.addOneShotTimer(10, [&] { loop.stop(); });
  loop.run();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0], 0u);     // the deadline
  EXPECT_NE(events[1] & 1, 0u);  // readable
  EXPECT_GE(prepares, 2);
  close(fds[0]);
  close(fds[1]);
}

// The probe runs a loop that stops on SIGTERM while eight threads hand work
// over; it reports what ran, what was refused and what was left.
TEST(SdEventRunLoopTest, SigtermEndsTheLoopWithPostedWorkRunOrReportedNeverHalfRun) {
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  char path[] = SKERROW_LOOP_SIGNAL_PROBE;
  char* argv[] = {path, nullptr};
  pid_t pid;
  ASSERT_EQ(posix_spawn(&pid, path, &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  FILE* from = fdopen(out[0], "r");
  char line[512];
  ASSERT_TRUE(fgets(line, sizeof line, from));
  EXPECT_STREQ(line, "ready\n");
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  std::map<std::string, long> report;
  while (fgets(line, sizeof line, from)) {
    char key[64];
    long value;
    if (sscanf(line, "%63s %ld", key, &value) == 2) report[key] = value;
  }
  fclose(from);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(report["signal"], SIGTERM);
  EXPECT_GT(report["started"], 0);
  EXPECT_EQ(report["started"], report["finished"]);  // no task was cut off in the middle
  // Every task the loop took either ran or is counted as left.  A waiting
  // hand-over that answered false was either turned away or left.
  const long queuedAtLeast = report["plain_accepted"] + report["waits_ran"];
  EXPECT_GE(report["finished"] + report["left"], queuedAtLeast);
  EXPECT_LE(report["finished"] + report["left"], queuedAtLeast + report["waits_false"]);
  EXPECT_LE(report["waits_ran"], report["finished"]);
}
