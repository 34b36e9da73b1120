#include "platform/ThreadSafeDictionary.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

using platform::ThreadSafeDictionary;

TEST(ThreadSafeDictionaryTest, SetGetRemove) {
  ThreadSafeDictionary<std::string, int> d;
  EXPECT_FALSE(d.threadSafeObjectForKey("a"));
  d.threadSafeSetObject_forKey(1, "a");
  EXPECT_EQ(*d.threadSafeObjectForKey("a"), 1);
  d.threadSafeSetObject_forKey(2, "a");
  EXPECT_EQ(*d.threadSafeObjectForKey("a"), 2);
  d.threadSafeRemoveObjectForKey("a");
  EXPECT_FALSE(d.threadSafeObjectForKey("a"));
  EXPECT_EQ(d.count(), 0u);
}

TEST(ThreadSafeDictionaryTest, SetIfAbsentKeepsTheFirstValue) {
  ThreadSafeDictionary<std::string, int> d;
  EXPECT_EQ(d.threadSafeSetObjectIfAbsent_forKey(1, "a"), 1);
  EXPECT_EQ(d.threadSafeSetObjectIfAbsent_forKey(2, "a"), 1);
}

TEST(ThreadSafeDictionaryTest, ConcurrentWritersAndReaders) {
  ThreadSafeDictionary<int, std::shared_ptr<int>> d;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 1000; ++i) {
        d.threadSafeSetObject_forKey(std::make_shared<int>(i), t * 1000 + i);
        (void)d.threadSafeObjectForKey(i);
        (void)d.snapshot();
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(d.count(), 4000u);
  EXPECT_EQ(d.allKeys().size(), 4000u);
}
