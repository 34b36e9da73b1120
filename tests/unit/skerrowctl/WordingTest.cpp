#include "tools/skerrowctl/Wording.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace {

using namespace skerrowctl;

TEST(WordingTest, NumbersAreGroupedByThousands) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(2797), "2,797");
  EXPECT_EQ(grouped(1234567), "1,234,567");
  EXPECT_EQ(grouped(-2797), "-2,797");
  EXPECT_EQ(countOf(1, "file", "files"), "1 file");
  EXPECT_EQ(countOf(2797, "file", "files"), "2,797 files");
}

TEST(WordingTest, SizesUseDecimalUnits) {
  EXPECT_EQ(humanBytes(0), "0 B");
  EXPECT_EQ(humanBytes(999), "999 B");
  EXPECT_EQ(humanBytes(1234567), "1.2 MB");
  EXPECT_EQ(humanBytes(1500000000), "1.5 GB");
  EXPECT_EQ(humanRate(34200000), "34.2 MB/s");
}

TEST(WordingTest, DurationsAsAClockAndInWords) {
  EXPECT_EQ(clockDuration(5), "0:05");
  EXPECT_EQ(clockDuration(754), "12:34");
  EXPECT_EQ(clockDuration(4000), "1:06:40");
  EXPECT_EQ(wordedDuration(0.44), "0.4 s");
  EXPECT_EQ(wordedDuration(75), "1 min 15 s");
  EXPECT_EQ(wordedDuration(3700), "1 h 1 min");
}

TEST(WordingTest, SchedulesInWordsPeopleUse) {
  EXPECT_EQ(scheduleWords(false, 3600), "off");
  EXPECT_EQ(scheduleWords(true, 3600), "every hour");
  EXPECT_EQ(scheduleWords(true, 7200), "every 2 hours");
  EXPECT_EQ(scheduleWords(true, 86400), "every day");
  EXPECT_EQ(scheduleWords(true, 1800), "every 30 minutes");
  EXPECT_EQ(scheduleWords(true, 604800), "every week");
  EXPECT_EQ(scheduleWords(true, 0), "every minute");
  EXPECT_EQ(scheduleWords(true, 90), "every 1 min 30 s");
}

TEST(WordingTest, VersionDepthNKeepsNPlusOneVersions) {
  EXPECT_EQ(keepsWords(0), "keeps 1 version");
  EXPECT_EQ(keepsWords(2), "keeps 3 versions");
  EXPECT_EQ(keepsWords(4294967295u), "keeps 4,294,967,296 versions");
}

TEST(WordingTest, IsoDatesAreUtc) {
  const auto date = platform::Date::dateWithTimeIntervalSince1970(1735808645.125);
  EXPECT_EQ(isoDate(date), "2025-01-02T09:04:05Z");
  EXPECT_EQ(isoDate(date, true), "2025-01-02T09:04:05.125Z");
}

TEST(WordingTest, DatesTheUserTypes) {
  EXPECT_EQ(parseUserDate("2025-01-02T09:04:05Z")->timeIntervalSince1970(), 1735808645);
  EXPECT_EQ(parseUserDate("2025-01-02T11:04:05+02:00")->timeIntervalSince1970(), 1735808645);
  EXPECT_EQ(parseUserDate("2025-01-02 09:04Z")->timeIntervalSince1970(), 1735808640);
  EXPECT_EQ(parseUserDate("@1735808645")->timeIntervalSince1970(), 1735808645);
  // Local time without a zone; a day alone is its very end.
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(parseUserDate("2025-01-02 09:04")->timeIntervalSince1970(), 1735808640);
  EXPECT_DOUBLE_EQ(parseUserDate("2025-01-02")->timeIntervalSince1970(), 1735862399.999);
  EXPECT_FALSE(parseUserDate("yesterday"));
  EXPECT_FALSE(parseUserDate("2025-02-31"));
  EXPECT_FALSE(parseUserDate("2025-13-01"));
  EXPECT_FALSE(parseUserDate("2025-01-02 25:00"));
  unsetenv("TZ");
  tzset();
}

}  // namespace
