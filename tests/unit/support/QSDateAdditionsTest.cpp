#include "Engine/support/QSDateAdditions.h"

#include <gtest/gtest.h>

TEST(QSDateAdditionsTest, DateByAddingTimeInterval) {
  EXPECT_EQ(dateByAddingTimeInterval(platform::Date(100), 3600.5), platform::Date(3700.5));
  EXPECT_EQ(dateByAddingTimeInterval(platform::Date::distantPast(), 0), platform::Date::distantPast());
}

TEST(QSDateAdditionsTest, InitWithUTCDateTime) {
  // 2001-01-01 00:00:00 is 3061152000 seconds after 1904-01-01.
  UTCDateTime reference{0, 3061152000u, 0};
  EXPECT_EQ(initWithUTCDateTime(reference), platform::Date(0));
  UTCDateTime half{0, 3061152001u, 0x8000};
  EXPECT_EQ(initWithUTCDateTime(half), platform::Date(1.5));
  UTCDateTime high{1, 0, 0};
  EXPECT_EQ(initWithUTCDateTime(high), platform::Date(4294967296.0 - 3061152000.0));
  EXPECT_EQ(initWithUTCDateTime(UTCDateTime{}).description(), "1904-01-01 00:00:00 +0000");
}
