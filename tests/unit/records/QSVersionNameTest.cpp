#include "Engine/records/QSVersionName.h"

#include <gtest/gtest.h>

#include <random>

#include "Engine/files/QSFSVersion.h"
#include "platform/RegexPredicate.h"

using Parsed = std::array<std::string, 2>;

TEST(QSVersionNameTest, ParseBodyExtensionSplitsAtTheLastDot) {
  std::string body, ext;
  parseBody_extension("archive.tar.gz", &body, &ext);
  EXPECT_EQ(body, "archive.tar");
  EXPECT_EQ(ext, ".gz");
  parseBody_extension("Makefile", &body, &ext);
  EXPECT_EQ(body, "Makefile");
  EXPECT_EQ(ext, "");
  parseBody_extension(".profile", &body, &ext);
  EXPECT_EQ(body, "");
  EXPECT_EQ(ext, ".profile");
}

TEST(QSVersionNameTest, VersionNameExamples) {
  EXPECT_EQ(QSVersionName("report.txt", 3), "report@3.txt");
  EXPECT_EQ(QSVersionName("Makefile", 12), "Makefile@12");
  EXPECT_EQ(QSVersionName("archive.tar.gz", 2), "archive.tar@2.gz");
  EXPECT_EQ(QSVersionName(".profile", 1), "@1.profile");
  EXPECT_EQ(QSVersionName("report.txt", 0), "report@0.txt");
}

TEST(QSVersionNameTest, VersionNameWithoutDotAppendsAtTheEnd) { EXPECT_EQ(QSVersionName("README", 4), "README@4"); }

TEST(QSVersionNameTest, VersionNameOfTrailingDotKeepsTheDot) { EXPECT_EQ(QSVersionName("x.", 7), "x@7."); }

TEST(QSVersionNameTest, VersionNumbersAbove2Pow32ArePrintedInFull) {
  EXPECT_EQ(QSVersionName("a.b", 4294967296ULL), "a@4294967296.b");
  EXPECT_EQ(QSVersionName("a.b", UINT64_MAX), "a@18446744073709551615.b");
  EXPECT_EQ((*QSParseFileName("a@18446744073709551615.b"))[1], "18446744073709551615");
}

TEST(QSVersionNameTest, ParseFileNameExamples) {
  EXPECT_EQ(QSParseFileName("report@3.txt"), (Parsed{"report.txt", "3"}));
  EXPECT_EQ(QSParseFileName("a@b@7"), (Parsed{"a@b", "7"}));
  EXPECT_EQ(QSParseFileName("archive.tar@2.gz"), (Parsed{"archive.tar.gz", "2"}));
  EXPECT_FALSE(QSParseFileName("report.txt"));
  EXPECT_FALSE(QSParseFileName("mail@home.txt"));
  // A live file that looks like a version is read as one, by design.
  EXPECT_EQ(QSParseFileName("photo@2008.jpg"), (Parsed{"photo.jpg", "2008"}));
}

TEST(QSVersionNameTest, ParseFileNameOfAtFiveGivesEmptyNameAndFive) {
  EXPECT_EQ(QSParseFileName("@5"), (Parsed{"", "5"}));
}

TEST(QSVersionNameTest, ParseFileNameRejectsTrailingAtAndNonDigits) {
  EXPECT_FALSE(QSParseFileName("name@"));
  EXPECT_FALSE(QSParseFileName("name@x1"));
  EXPECT_FALSE(QSParseFileName("name@1x"));
  EXPECT_FALSE(QSParseFileName("name@\xd9\xa3"));  // a non-ASCII digit
  EXPECT_FALSE(QSParseFileName(""));
}

TEST(QSVersionNameTest, ParseInvertsVersionName) {
  for (const std::string name : {"report.txt", "Makefile", "archive.tar.gz", ".profile", "x.", "a@b", "@", "é.ü"}) {
    for (uint64_t v : {0ULL, 1ULL, 42ULL, 4294967296ULL}) {
      auto parsed = QSParseFileName(QSVersionName(name, v));
      ASSERT_TRUE(parsed) << name;
      EXPECT_EQ((*parsed)[0], name);
      EXPECT_EQ((*parsed)[1], std::to_string(v));
    }
  }
}

// The direct test of the body must agree with the regular expression it
// stands for, "\A(.){0,}@([0-9])+\z" with case-insensitive and dot-all options.
TEST(QSVersionNameTest, AgreesWithTheVersionBodyExpression) {
  auto expression = platform::RegexPredicate::selfMatchesCaseInsensitive("(?s)\\A(.){0,}@([0-9])+\\z");
  const std::string alphabet = "@@.09aZ\n\xc3\xa9";
  std::mt19937 rng(20261121);
  for (int i = 0; i < 20000; ++i) {
    std::string name;
    const int length = static_cast<int>(rng() % 9);
    for (int j = 0; j < length; ++j) name += alphabet[rng() % alphabet.size()];
    std::string body;
    parseBody_extension(name, &body, nullptr);
    ASSERT_EQ(QSParseFileName(name).has_value(), expression->evaluateWithObject(body)) << "name: " << name;
  }
}

// The parse the walks use for every stored copy must accept exactly the
// names a copy is made from: a version name whose digits read as a signed
// 64-bit number, giving the same current name and number.
TEST(QSVersionNameTest, VersionedNameParseAgreesWithTheVersionRecordOfEveryName) {
  const std::string alphabet = "@@..0919aZ\xc3\xa9";
  std::mt19937 rng(20261125);
  std::vector<std::string> names = {"report@3.txt", "a@9223372036854775807", "a@9223372036854775808.x",
                                    "a@99999999999999999999", "@5", ".@1", "x@0007.tar.gz", "x@.txt", "x@1a.txt",
                                    "name@\xd9\xa3", ""};
  for (int i = 0; i < 20000; ++i) {
    std::string name;
    const int length = static_cast<int>(rng() % 12);
    for (int j = 0; j < length; ++j) name += alphabet[rng() % alphabet.size()];
    names.push_back(name);
  }
  size_t accepted = 0;
  for (const auto& name : names) {
    const auto version = QSFSVersion::versionWithFileName_attributes(name, QSFSFileAttributes());
    std::string current = "left as it was";
    uint64_t number = 0;
    ASSERT_EQ(QSParseVersionedName(name, &current, &number), version != nullptr) << "name: " << name;
    if (!version) continue;
    ++accepted;
    EXPECT_EQ(current, (*QSParseFileName(name))[0]) << name;
    EXPECT_EQ(number, version->index()) << name;
  }
  EXPECT_GT(accepted, 1000u);  // the random names reach both answers
}
