#include "Engine/pipeline/QSAtomicHolders.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Engine/records/QSMutableTally.h"

TEST(atomicTest, StartsAtZeroAndHoldsTheLastValue) {
  atomic<bool> flag;
  atomic<int32_t> number;
  EXPECT_FALSE(flag.get());
  EXPECT_EQ(number.get(), 0);
  flag.set(true);
  number.set(-5);
  EXPECT_TRUE(flag.get());
  EXPECT_EQ(number.get(), -5);
}

TEST(atomicTest, ConcurrentSettersAndGetters) {
  atomic<int32_t> number;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 10000; ++i) {
        number.set(t);
        const int v = number.get();
        ASSERT_TRUE(v >= 0 && v < 4);
      }
    });
  for (auto& th : threads) th.join();
}

TEST(retained_atomic_ptrTest, StartsEmptyAndKeepsTheObjectAlive) {
  retained_atomic_ptr<std::string> holder;
  EXPECT_EQ(holder.get(), nullptr);
  auto s = std::make_shared<std::string>("dest");
  std::weak_ptr<std::string> watch = s;
  holder.set(s);
  s.reset();
  EXPECT_FALSE(watch.expired());
  auto borrowed = holder.get();
  holder.set(nullptr);
  EXPECT_EQ(*borrowed, "dest");  // still valid for the caller that took it
  borrowed.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(retained_atomic_ptrTest, SetsAndCategoryFiltersAndTalliesFromManyThreads) {
  retained_atomic_ptr<const std::set<std::string>> filter;
  retained_atomic_ptr<QSMutableTally> tally;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        filter.set(std::make_shared<const std::set<std::string>>(std::set<std::string>{"Music"}));
        if (auto f = filter.get()) {
          ASSERT_EQ(f->size(), 1u);
        }
        tally.set(QSMutableTally::init());
        if (auto current = tally.get()) current->tallyFileOfSize_forSourceCategory(1, "Music");
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_NE(tally.get(), nullptr);
}
