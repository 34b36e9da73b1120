#include "platform/OVQueue.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using platform::OVQueue;

TEST(OVQueueTest, FirstInFirstOut) {
  OVQueue<int> q;
  EXPECT_FALSE(q.dequeue());
  EXPECT_FALSE(q.front());
  q.enqueue(1);
  q.enqueue(2);
  EXPECT_EQ(*q.front(), 1);
  EXPECT_EQ(q.count(), 2u);
  EXPECT_EQ(*q.dequeue(), 1);
  EXPECT_EQ(*q.dequeue(), 2);
  EXPECT_EQ(q.count(), 0u);
}

TEST(OVQueueTest, EnumerateInOrderAndRemoveAll) {
  OVQueue<std::string> q;
  for (const char* s : {"a", "b", "c"}) q.enqueue(s);
  std::string seen;
  q.enumerate([&](std::string& s) { seen += s; });
  EXPECT_EQ(seen, "abc");
  EXPECT_EQ(q.removeIf([](const std::string& s) { return s == "b"; }), 1u);
  q.removeAllObjects();
  EXPECT_EQ(q.count(), 0u);
}

TEST(OVQueueTest, HeldLockMakesSeveralOperationsOneStep) {
  OVQueue<int> q;
  q.acquireQueueLock();
  q.enqueue(1);  // the lock is recursive
  std::atomic<bool> otherDone{false};
  std::thread other([&] {
    q.enqueue(2);
    otherDone = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(otherDone.load());
  EXPECT_EQ(q.count(), 1u);
  q.releaseQueueLock();
  other.join();
  EXPECT_EQ(q.count(), 2u);
}

TEST(OVQueueTest, ConcurrentProducersAndConsumerLoseNothing) {
  OVQueue<int> q;
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t)
    producers.emplace_back([&, t] {
      for (int i = 0; i < 5000; ++i) q.enqueue(t * 5000 + i);
    });
  std::vector<int> got;
  while (got.size() < 20000) {
    if (auto v = q.dequeue()) got.push_back(*v);
  }
  for (auto& p : producers) p.join();
  std::sort(got.begin(), got.end());
  for (int i = 0; i < 20000; ++i) ASSERT_EQ(got[static_cast<size_t>(i)], i);
}
