#include "platform/Date.h"

#include <gtest/gtest.h>

using platform::Date;

TEST(DateTest, ReferenceDateDescription) {
  EXPECT_EQ(Date(0).description(), "2001-01-01 00:00:00 +0000");
}

TEST(DateTest, DistantPastPrintsAsYearOneInTheJulianCalendar) {
  EXPECT_EQ(Date::distantPast().timeIntervalSinceReferenceDate(), -63114076800.0);
  EXPECT_EQ(Date::distantPast().description(), "0001-01-01 00:00:00 +0000");
}

TEST(DateTest, DistantFutureDescription) {
  EXPECT_EQ(Date::distantFuture().description(), "4001-01-01 00:00:00 +0000");
}

TEST(DateTest, DescriptionTruncatesFractionsAndHandlesNegativeOffsets) {
  EXPECT_EQ(Date(-0.5).description(), "2000-12-31 23:59:59 +0000");
  EXPECT_EQ(Date(86399.999).description(), "2001-01-01 23:59:59 +0000");
  EXPECT_EQ(Date::dateWithTimeIntervalSince1970(951782400).description(), "2000-02-29 00:00:00 +0000");
}

TEST(DateTest, GregorianCutoverBoundary) {
  // 1582-10-15 (Gregorian) follows 1582-10-04 (Julian).
  const Date cutover = Date::dateWithTimeIntervalSince1970(-141427.0 * 86400);
  EXPECT_EQ(cutover.description(), "1582-10-15 00:00:00 +0000");
  EXPECT_EQ(cutover.addingTimeInterval(-86400).description(), "1582-10-04 00:00:00 +0000");
}

TEST(DateTest, Ordering) {
  EXPECT_LT(Date::distantPast(), Date(0));
  EXPECT_EQ(Date(1.5), Date(1.5));
  EXPECT_NE(Date(1.5), Date(1.5000001));
  EXPECT_GT(Date::now(), Date(700000000));
}
