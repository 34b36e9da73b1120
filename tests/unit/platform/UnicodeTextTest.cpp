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

TEST(UnicodeTextTest, EqualIgnoringCaseComparesTheLowerCasedTexts) {
  EXPECT_TRUE(platform::equalIgnoringCase("Documents", "dOCUMENTS"));
  EXPECT_FALSE(platform::equalIgnoringCase("Documents", "Document"));
  EXPECT_FALSE(platform::equalIgnoringCase("a-b", "a_b"));
  EXPECT_TRUE(platform::equalIgnoringCase("", ""));
  EXPECT_TRUE(platform::equalIgnoringCase("\u00C9T\u00C9", "\u00E9t\u00E9"));  // ÉTÉ, été
  EXPECT_TRUE(platform::equalIgnoringCase("\u212A", "k"));  // KELVIN SIGN: only one side is ASCII
  EXPECT_TRUE(platform::equalIgnoringCase("A\xff", "a\xff"));  // not UTF-8: ASCII letters fold
  EXPECT_FALSE(platform::equalIgnoringCase("a\xff", "a\xfe"));
  EXPECT_TRUE(platform::isAscii("plain.txt"));
  EXPECT_FALSE(platform::isAscii("\u00e9"));
}
