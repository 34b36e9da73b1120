#include "Engine/records/QSAtomicInteger.h"

#include <gtest/gtest.h>

#include <thread>

#include "Engine/records/QSMemoryCoder.h"

TEST(QSAtomicIntegerTest, ValueAndCopy) {
  auto i = QSAtomicInteger::initWithValue(-7);
  EXPECT_EQ(i->value(), -7);
  i->setValue(INT64_MAX);
  auto copy = i->mutableCopy();
  EXPECT_EQ(copy->value(), INT64_MAX);
  copy->setValue(1);
  EXPECT_EQ(i->value(), INT64_MAX);
}

TEST(QSAtomicIntegerTest, PortCodingIsOneSigned64BitInteger) {
  QSMemoryCoder coder;
  QSAtomicInteger(-123456789012345).encodeWithCoder(coder.encoder());
  EXPECT_EQ(coder.itemCount(), 1u);
  EXPECT_EQ(QSAtomicInteger::initWithCoder(coder.decoder())->value(), -123456789012345);
}

TEST(QSAtomicIntegerTest, AddValueLosesNoUpdateUnderContention) {
  QSAtomicInteger counter;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) counter.addValue(1);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter.value(), 40000);
}
