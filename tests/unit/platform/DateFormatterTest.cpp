#include "platform/DateFormatter.h"

#include <gtest/gtest.h>

namespace {

TEST(DateFormatter, ParsesInGMTAndWritesBack) {
  auto f = platform::DateFormatter::withPattern("'@'yyyy'-'MM'-'dd'T'HH';'mm';'ss");
  ASSERT_TRUE(f);
  const auto date = f->dateFromString("@2010-06-17T11;56;23");
  ASSERT_TRUE(date);
  EXPECT_EQ(date->timeIntervalSince1970(), 1276775783.0);
  EXPECT_EQ(f->stringFromDate(*date), "@2010-06-17T11;56;23");
}

TEST(DateFormatter, IsStrictAndWantsTheWholeText) {
  auto f = platform::DateFormatter::withPattern("'@'yyyy'-'MM'-'dd'T'HH';'mm';'ss");
  EXPECT_FALSE(f->dateFromString("@2010-02-30T11;56;23"));
  EXPECT_FALSE(f->dateFromString("@2010-06-17T11;56;60"));
  EXPECT_FALSE(f->dateFromString("@2010-06-17T11;56;23x"));
  EXPECT_FALSE(f->dateFromString("2010-06-17T11;56;23"));
  EXPECT_FALSE(f->dateFromString(""));
  EXPECT_FALSE(f->dateFromString("\xff\xfe"));
}

}  // namespace
