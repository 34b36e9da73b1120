#include "platform/Log.h"

#include <gtest/gtest.h>

using platform::Log;
using platform::LogCapture;

TEST(LogTest, CaptureSeesExactLines) {
  LogCapture capture;
  Log::line("server is launching...");
  Log::format("Server did save to permanent store: %d", 1);
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"server is launching...", "Server did save to permanent store: 1"}));
  EXPECT_EQ(capture.count("server is launching..."), 1u);
  EXPECT_TRUE(capture.contains("permanent store"));
}

TEST(LogTest, NestedCapturesRestoreTheOuterOne) {
  LogCapture outer;
  {
    LogCapture inner;
    Log::line("inner");
    EXPECT_EQ(inner.count("inner"), 1u);
  }
  Log::line("outer");
  EXPECT_EQ(outer.count("outer"), 1u);
  EXPECT_EQ(outer.count("inner"), 0u);
}
