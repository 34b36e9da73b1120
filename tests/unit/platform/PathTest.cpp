#include "platform/Path.h"

#include <gtest/gtest.h>

TEST(PathTest, IsAtOrBelowKeepsToComponentBoundaries) {
  EXPECT_TRUE(platform::isAtOrBelow("/home/ann", "/home/ann"));
  EXPECT_TRUE(platform::isAtOrBelow("/home/ann/Documents/a.txt", "/home/ann"));
  EXPECT_FALSE(platform::isAtOrBelow("/home/anna", "/home/ann"));
  EXPECT_FALSE(platform::isAtOrBelow("/home", "/home/ann"));
  EXPECT_TRUE(platform::isAtOrBelow("/etc/x", "/"));
  EXPECT_TRUE(platform::isAtOrBelow("/home/ann/x", "/home/ann/"));
  EXPECT_FALSE(platform::isAtOrBelow("/home/ann", "/home/ann/"));
  EXPECT_FALSE(platform::isAtOrBelow("/home/ann", ""));
}
