#include "platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <thread>

using platform::Notification;
using platform::NotificationCenter;

namespace {
struct Thing {
  int n = 0;
};
}  // namespace

TEST(NotificationCenterTest, DeliversByNameAndSenderSynchronously) {
  NotificationCenter center;
  auto a = std::make_shared<Thing>();
  auto b = std::make_shared<Thing>();
  int anySender = 0, onlyA = 0, anyName = 0;
  std::thread::id deliveredOn;
  center.addObserver("N", nullptr, [&](const Notification& n) {
    ++anySender;
    deliveredOn = std::this_thread::get_id();
    EXPECT_EQ(n.name, "N");
  });
  center.addObserver("N", a.get(), [&](const Notification& n) {
    ++onlyA;
    EXPECT_EQ(n.objectAs<Thing>(), a);
  });
  center.addObserver("", nullptr, [&](const Notification&) { ++anyName; });
  center.post("N", a);
  center.post("N", b);
  center.post("Other", a);
  EXPECT_EQ(anySender, 2);
  EXPECT_EQ(onlyA, 1);
  EXPECT_EQ(anyName, 3);
  EXPECT_EQ(deliveredOn, std::this_thread::get_id());
}

TEST(NotificationCenterTest, RemovedObserverIsNotCalled) {
  NotificationCenter center;
  int calls = 0;
  auto id = center.addObserver("N", nullptr, [&](const Notification&) { ++calls; });
  center.post("N", std::shared_ptr<Thing>());
  center.removeObserver(id);
  center.post("N", std::shared_ptr<Thing>());
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(center.observerCount(), 0u);
}

TEST(NotificationCenterTest, ObserverMayRemoveAnotherDuringAPost) {
  NotificationCenter center;
  int second = 0;
  NotificationCenter::ObserverId secondId = 0;
  center.addObserver("N", nullptr, [&](const Notification&) { center.removeObserver(secondId); });
  secondId = center.addObserver("N", nullptr, [&](const Notification&) { ++second; });
  center.post("N", std::shared_ptr<Thing>());
  EXPECT_EQ(second, 0);
}

TEST(NotificationCenterTest, ObjectAsOtherTypeAnswersNothing) {
  NotificationCenter center;
  bool checked = false;
  center.addObserver("N", nullptr, [&](const Notification& n) {
    EXPECT_EQ(n.objectAs<int>(), nullptr);
    EXPECT_NE(n.objectAs<Thing>(), nullptr);
    checked = true;
  });
  center.post("N", std::make_shared<Thing>());
  EXPECT_TRUE(checked);
}

TEST(NotificationCenterTest, ScopedObserverRemovesItself) {
  NotificationCenter center;
  int calls = 0;
  {
    platform::ScopedObserver scoped(center, center.addObserver("N", nullptr, [&](const Notification&) { ++calls; }));
    center.post("N", std::shared_ptr<Thing>());
  }
  center.post("N", std::shared_ptr<Thing>());
  EXPECT_EQ(calls, 1);
}

TEST(NotificationCenterTest, PostsFromManyThreads) {
  NotificationCenter center;
  std::atomic<int> calls{0};
  center.addObserver("N", nullptr, [&](const Notification&) { ++calls; });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) center.post("N", std::shared_ptr<Thing>());
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(calls.load(), 4000);
}
