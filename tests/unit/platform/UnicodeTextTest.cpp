#include "platform/UnicodeText.h"

#include <gtest/gtest.h>

TEST(UnicodeTextTest, LowercaseInTheRootLocale) {
  EXPECT_EQ(platform::lowercase("Report.TXT"), "report.txt");
  EXPECT_EQ(platform::lowercase("ÉCOLE"), "école");
  EXPECT_EQ(platform::lowercase("ΣΟΦΟΣ"), "σοφος");
  // The root locale keeps the dotted capital I as "i" + combining dot, not the Turkish rule.
  EXPECT_EQ(platform::lowercase("I"), "i");
}

TEST(UnicodeTextTest, ValidUTF8) {
  EXPECT_TRUE(platform::isValidUTF8("héllo"));
  EXPECT_FALSE(platform::isValidUTF8(std::string("a\xff")));
  EXPECT_FALSE(platform::isValidUTF8(std::string("\xc3")));
}

TEST(UnicodeTextTest, InvalidUTF8KeepsItsBytesSoDifferentNamesStayDifferent) {
  EXPECT_EQ(platform::lowercase(std::string("A\xff")), std::string("a\xff"));
  EXPECT_NE(platform::lowercase(std::string("a\xff")), platform::lowercase(std::string("a\xfe")));
}
