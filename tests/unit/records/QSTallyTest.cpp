#include "Engine/records/QSTally.h"

#include <gtest/gtest.h>

#include <thread>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSMemoryCoder.h"
#include "Engine/records/QSMutableTally.h"

namespace {
int64_t files(const QSTally& t, void (QSTally::*get)(int64_t*, int64_t*, const std::string&) const,
              const std::string& category) {
  int64_t f = -1, b = -1;
  (t.*get)(&f, &b, category);
  return f;
}
}  // namespace

TEST(QSTallyTest, NewTallyReportsZeroEverywhere) {
  auto t = QSTally::init();
  for (const char* c : kAllCategories) {
    int64_t f = -1, b = -1;
    t->getSourceFileCount_byteCount_forCategory(&f, &b, c);
    EXPECT_EQ(f, 0);
    EXPECT_EQ(b, 0);
    t->getDestinationFileCount_byteCount_forCategory(&f, &b, c);
    EXPECT_EQ(f + b, 0);
    t->getTransferredFileCount_byteCount_forCategory(&f, &b, c);
    EXPECT_EQ(f + b, 0);
    t->getExpectedFileCount_byteCount_forCategory(&f, &b, c);
    EXPECT_EQ(f + b, 0);
  }
  int64_t f = -1, b = -1;
  t->getTotalSourceFileCount_byteCount(&f, &b);
  EXPECT_EQ(f + b, 0);
  t->getTotalDestinationFileCount_byteCount(&f, &b);
  EXPECT_EQ(f + b, 0);
  t->getTotalTransferredFileCount_byteCount(&f, &b);
  EXPECT_EQ(f + b, 0);
  t->getTotalExpectedFileCount_byteCount(&f, &b);
  EXPECT_EQ(f + b, 0);
  EXPECT_EQ(t->srcMap()->count(), 0u);
}

TEST(QSTallyTest, TallyFileOfZeroBytesStillCountsOneFile) {
  auto t = QSMutableTally::init();
  t->tallyFileOfSize_forSourceCategory(0, "Music");
  int64_t f = 0, b = -1;
  t->getSourceFileCount_byteCount_forCategory(&f, &b, "Music");
  EXPECT_EQ(f, 1);
  EXPECT_EQ(b, 0);
  t->tallyFileOfSize_forDestinationCategory(0, "Music");
  t->getDestinationFileCount_byteCount_forCategory(&f, &b, "Music");
  EXPECT_EQ(f, 1);
}

TEST(QSTallyTest, InitWithTallySharesCountersButCopyDoesNot) {
  auto original = QSMutableTally::init();
  original->increaseBytesBy_filesBy_forSourceCategory(10, 1, "Music");
  auto shared = QSMutableTally::initWithTally(original);
  auto copied = original->copy();
  shared->increaseBytesBy_filesBy_forSourceCategory(5, 2, "Music");
  int64_t f = 0, b = 0;
  original->getSourceFileCount_byteCount_forCategory(&f, &b, "Music");
  EXPECT_EQ(f, 3);
  EXPECT_EQ(b, 15);
  copied->getSourceFileCount_byteCount_forCategory(&f, &b, "Music");
  EXPECT_EQ(f, 1);
  EXPECT_EQ(b, 10);
  // The maps themselves are new objects: a category added later is not shared.
  EXPECT_NE(shared->srcMap(), original->srcMap());
  shared->increaseBytesBy_filesBy_forSourceCategory(1, 1, "Movies");
  EXPECT_EQ(files(*original, &QSTally::getSourceFileCount_byteCount_forCategory, "Movies"), 0);
  auto mutableCopy = original->mutableCopy();
  mutableCopy->increaseBytesBy_filesBy_forSourceCategory(1, 1, "Music");
  EXPECT_EQ(files(*original, &QSTally::getSourceFileCount_byteCount_forCategory, "Music"), 3);
  EXPECT_EQ(files(*QSTally::initWithTally(nullptr), &QSTally::getSourceFileCount_byteCount_forCategory, "Music"), 0);
}

TEST(QSTallyTest, ExpectedAndTransferredTotalsIgnoreCategoriesAbsentFromDestination) {
  auto t = QSMutableTally::init();
  t->increaseBytesBy_filesBy_forDestinationCategory(100, 1, "Music");
  t->increaseBytesBy_filesBy_forExpectedCategory(7, 2, "Music");
  t->increaseBytesBy_filesBy_forExpectedCategory(1000, 50, "Movies");
  t->increaseBytesBy_filesBy_forTransferredCategory(1000, 50, "Movies");
  int64_t f = 0, b = 0;
  t->getTotalExpectedFileCount_byteCount(&f, &b);
  EXPECT_EQ(f, 2);
  EXPECT_EQ(b, 7);
  t->getTotalTransferredFileCount_byteCount(&f, &b);
  EXPECT_EQ(f, 0);
  EXPECT_EQ(b, 0);
  t->getTotalDestinationFileCount_byteCount(&f, &b);
  EXPECT_EQ(f, 1);
  EXPECT_EQ(b, 100);
}

TEST(QSTallyTest, SourceTotalSumsSourceCategories) {
  auto t = QSMutableTally::init();
  t->tallyFileOfSize_forSourceCategory(10, "Music");
  t->tallyFileOfSize_forSourceCategory(20, "Other");
  t->tallyFileOfSize_forSourceCategory(30, "Other");
  int64_t f = 0, b = 0;
  t->getTotalSourceFileCount_byteCount(&f, &b);
  EXPECT_EQ(f, 3);
  EXPECT_EQ(b, 60);
}

TEST(QSTallyTest, ClearEmptiesAllFourMaps) {
  auto t = QSMutableTally::init();
  t->tallyFileOfSize_forSourceCategory(1, "Music");
  t->tallyFileOfSize_forDestinationCategory(1, "Music");
  t->increaseBytesBy_filesBy_forTransferredCategory(1, 1, "Music");
  t->increaseBytesBy_filesBy_forExpectedCategory(1, 1, "Music");
  t->clear();
  EXPECT_EQ(t->srcMap()->count() + t->dstMap()->count() + t->transferMap()->count() + t->expectedMap()->count(), 0u);
  EXPECT_EQ(files(*t, &QSTally::getSourceFileCount_byteCount_forCategory, "Music"), 0);
  EXPECT_EQ(files(*t, &QSTally::getExpectedFileCount_byteCount_forCategory, "Music"), 0);
}

TEST(QSTallyTest, CountersAreTheMapsOwnObjects) {
  auto t = QSMutableTally::init();
  std::shared_ptr<QSAtomicInteger> f, b;
  t->getSourceFileCounter_byteCounter_forCategory(&f, &b, "Music");
  EXPECT_FALSE(f);
  EXPECT_FALSE(b);
  t->tallyFileOfSize_forSourceCategory(5, "Music");
  t->getSourceFileCounter_byteCounter_forCategory(&f, &b, "Music");
  ASSERT_TRUE(f && b);
  b->setValue(99);
  int64_t files = 0, bytes = 0;
  t->getSourceFileCount_byteCount_forCategory(&files, &bytes, "Music");
  EXPECT_EQ(bytes, 99);
  t->tallyFileOfSize_forDestinationCategory(1, "Mail");
  t->getDestinationFileCounter_byteCounter_forCategory(&f, &b, "Mail");
  EXPECT_EQ(f->value(), 1);
}

TEST(QSTallyTest, ConcurrentIncreasesFromManyThreadsAreAllCounted) {
  auto t = QSMutableTally::init();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < 5000; ++j) t->tallyFileOfSize_forSourceCategory(2, kAllCategories[j % 6]);
    });
  std::thread reader([&] {
    for (int j = 0; j < 2000; ++j) (void)t->description();
  });
  for (auto& th : threads) th.join();
  reader.join();
  int64_t f = 0, b = 0;
  t->getTotalSourceFileCount_byteCount(&f, &b);
  EXPECT_EQ(f, 20000);
  EXPECT_EQ(b, 40000);
}

TEST(QSTallyTest, PortCodingRoundTrip) {
  auto t = QSMutableTally::init();
  t->tallyFileOfSize_forSourceCategory(123, "Music");
  t->increaseBytesBy_filesBy_forExpectedCategory(-5, 2, "Mail");
  QSMemoryCoder coder;
  t->encodeWithCoder(coder.encoder());
  auto back = QSTally::initWithCoder(coder.decoder());
  EXPECT_EQ(coder.remaining(), 0u);
  EXPECT_EQ(back->description(), t->description());
  int64_t f = 0, b = 0;
  back->getExpectedFileCount_byteCount_forCategory(&f, &b, "Mail");
  EXPECT_EQ(f, 2);
  EXPECT_EQ(b, -5);
  QSMemoryCoder byRef(true);
  EXPECT_EQ(QSTally::replacementObjectForPortCoder(byRef.encoder()), QSPortReplacement::ByReference);
  EXPECT_EQ(QSTally::replacementObjectForPortCoder(coder.encoder()), QSPortReplacement::ByCopy);
}

TEST(QSTallyTest, AllZeroDescriptionHasFileWidthOneAndByteWidthSix) {
  const std::string expected =
      "\n" + std::string(12 + 1 + 2, ' ') +
      "Source | Destination        | Transferred        | Expected\n"
      "  Pictures: 0       0 | 0       0 | 0       0 | 0       0\n"
      "     Music: 0       0 | 0       0 | 0       0 | 0       0\n"
      "    Movies: 0       0 | 0       0 | 0       0 | 0       0\n"
      "      Mail: 0       0 | 0       0 | 0       0 | 0       0\n"
      " Documents: 0       0 | 0       0 | 0       0 | 0       0\n"
      "     Other: 0       0 | 0       0 | 0       0 | 0       0\n";
  EXPECT_EQ(QSTally::init()->description(), expected);
}

TEST(QSTallyTest, DescriptionWidensToTheLongestCounts) {
  auto t = QSMutableTally::init();
  t->increaseBytesBy_filesBy_forSourceCategory(12345678, 120, "Music");
  t->increaseBytesBy_filesBy_forDestinationCategory(-1, 0, "Other");
  const std::string d = t->description();
  EXPECT_NE(d.find("\n" + std::string(12, ' ') + "   " + "  " + std::string(14, ' ') + "Source | Destination"),
            std::string::npos)
      << d;
  EXPECT_NE(d.find("     Music: 120              12345678 |   0                     0 |"), std::string::npos) << d;
  EXPECT_NE(d.find("18446744073709551615"), std::string::npos) << d;
}
