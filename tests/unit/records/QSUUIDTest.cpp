#include "Engine/records/QSUUID.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

TEST(QSUUIDTest, ThreeTextualForms) {
  QSUUIDBytes b = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
  EXPECT_EQ(stringWithUUID(b), "01234567-89AB-CDEF-0011-223344556677");
  EXPECT_EQ(stringWith_UUID(b), "01234567_89AB_CDEF_0011_223344556677");
  EXPECT_EQ(stringWithCompactedUUID(b), "0123456789ABCDEF0011223344556677");
}

TEST(QSUUIDTest, GeneratedIdentifiersAreTimeBasedUpperCaseAndUnique) {
  const std::regex standard("[0-9A-F]{8}-[0-9A-F]{4}-1[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string g = GenerateGUID();
    ASSERT_TRUE(std::regex_match(g, standard)) << g;
    seen.insert(g);
  }
  EXPECT_EQ(seen.size(), 1000u);
  EXPECT_TRUE(std::regex_match(stringByGeneratingUUID(), standard));
  EXPECT_TRUE(std::regex_match(Generate_GUID(), std::regex("[0-9A-F]{8}_[0-9A-F]{4}_1[0-9A-F]{3}_[0-9A-F]{4}_[0-9A-F]{12}")));
  EXPECT_TRUE(std::regex_match(GenerateCompactedGUID(), std::regex("[0-9A-F]{12}1[0-9A-F]{19}")));
}

TEST(QSUUIDTest, ParseToUUIDRoundTrip) {
  const std::string text = GenerateGUID();
  QSUUIDBytes b;
  ASSERT_TRUE(parseToUUID(text, b));
  EXPECT_EQ(stringWithUUID(b), text);
}

TEST(QSUUIDTest, UnparsableTextYieldsAllZeroBytes) {
  for (const std::string bad : {"", "not-a-uuid", "01234567-89AB-CDEF-0011-22334455667", "01234567_89AB_CDEF_0011_223344556677",
                                "0123456G-89AB-CDEF-0011-223344556677"}) {
    QSUUIDBytes b;
    b.fill(0xff);
    EXPECT_FALSE(parseToUUID(bad, b)) << bad;
    EXPECT_EQ(b, QSUUIDBytes{}) << bad;
  }
  QSUUIDBytes lower;
  EXPECT_TRUE(parseToUUID("01234567-89ab-cdef-0011-223344556677", lower));
  EXPECT_EQ(lower[4], 0x89);
}
