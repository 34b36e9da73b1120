#include "tools/skerrowctl/ProgressLine.h"

#include <gtest/gtest.h>

namespace {

using namespace skerrowctl;

ProgressSample copying() {
  ProgressSample s;
  s.phase = Phase::Copy;
  s.transferred = {1234, 52100000};
  s.expected = {3000, 160200000};
  s.elapsed = 12;
  s.bytesPerSecond = 34200000;
  s.secondsLeft = 16;
  return s;
}

TEST(ProgressLineTest, TheCopyLineShowsBarPercentCountsRateAndTime) {
  const std::string text = progressText(copying(), 200);
  EXPECT_EQ(text, "Copying  [######--------------]  32%  1,234/3,000 files  52.1 MB/160.2 MB  34.2 MB/s  0:12  "
                  "0:16 left");
}

TEST(ProgressLineTest, NeverWiderThanTheTerminalLessOne) {
  for (size_t width : {80u, 60u, 40u, 20u}) {
    ProgressSample s = copying();
    s.who = "5E4B0C1A";
    s.transferred = {1234567, 52100000000};
    s.expected = {3000000, 160200000000};
    EXPECT_LT(progressText(s, width).size(), width) << width;
    for (Phase phase : {Phase::Source, Phase::Destination}) {
      s.phase = phase;
      EXPECT_LT(progressText(s, width).size(), width) << width;
    }
  }
  const std::string eighty = progressText(copying(), 80);
  EXPECT_NE(eighty.find("0:16 left"), std::string::npos) << eighty;
  EXPECT_NE(eighty.find("1,234/3,000 files"), std::string::npos) << eighty;
}

TEST(ProgressLineTest, PercentFollowsBytesOrFilesAndIsFullWhenNothingIsExpected) {
  ProgressSample s = copying();
  EXPECT_EQ(percentDone(s), 32);
  s.expected.bytes = 0;
  EXPECT_EQ(percentDone(s), 41);
  s.expected = {0, 0};
  s.transferred = {0, 0};
  EXPECT_EQ(percentDone(s), 100);
}

TEST(ProgressLineTest, TheCountAndComparisonLines) {
  ProgressSample s;
  s.phase = Phase::Source;
  s.source = {12345, 1200000000};
  s.elapsed = 5;
  EXPECT_EQ(progressText(s, 80), "Counting your home folder  12,345 files  1.2 GB  0:05");
  s.finished = true;
  EXPECT_EQ(progressText(s, 80), "Counted your home folder  12,345 files  1.2 GB  0:05");
  s.phase = Phase::Destination;
  s.finished = false;
  s.destination = {4000, 1};
  s.expected = {3000, 160200000};
  EXPECT_EQ(progressText(s, 80), "Comparing with the backup  4,000 stored  3,000 files to copy (160.2 MB)  0:05");
}

}  // namespace
