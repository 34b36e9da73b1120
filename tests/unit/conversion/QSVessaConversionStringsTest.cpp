// The name rules of legacy files: per-file property lists, plan settings,
// the state file, and version time stamps.
#include "Engine/conversion/QSVessaConversionStrings.h"

#include <gtest/gtest.h>

#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using skerrow_test::gmt;

class VessaNames : public ::testing::Test {
 protected:
  std::string strip(const std::string& name, std::optional<platform::Date>* date) {
    return SeparateVessaVersionInfoFromFileName(name, *formatter, date);
  }
  std::unique_ptr<platform::DateFormatter> formatter = platform::DateFormatter::withPattern(sVessaTimeStampFormatterString);
};

TEST_F(VessaNames, LengthsAreSetFromTheirExamples) {
  EXPECT_EQ(kLengthOfVessaPListPrefix, 7u);
  EXPECT_EQ(kLengthOfVessaPListSuffix, 6u);
  EXPECT_EQ(kMinimumLengthOfVessaPListFilename, 13u);
  EXPECT_EQ(kLengthOfVessaTimeStampString, 20u);
}

// Edge case: a version called report@2010-06-17T11;56;23.txt belongs to the
// file report.txt with that time as its stamp; a file called notes.txt with
// no stamp is a version of notes.txt with the null marker as its stamp.
TEST_F(VessaNames, StampedVersionBelongsToItsPlainFileAndAnUnstampedFileHasTheNullStamp) {
  std::optional<platform::Date> date;
  EXPECT_EQ(strip("report@2010-06-17T11;56;23.txt", &date), "report.txt");
  ASSERT_TRUE(date);
  EXPECT_EQ(*date, gmt(2010, 6, 17, 11, 56, 23));
  EXPECT_EQ(strip("notes.txt", &date), "notes.txt");
  EXPECT_FALSE(date);
}

TEST_F(VessaNames, TheStampIsReadInGMTWhateverTheHostZone) {
  const char* zone = std::getenv("TZ");
  const std::string saved = zone ? zone : "";
  ::setenv("TZ", "America/Los_Angeles", 1);
  ::tzset();
  auto formatter = platform::DateFormatter::withPattern(sVessaTimeStampFormatterString);
  std::optional<platform::Date> date;
  SeparateVessaVersionInfoFromFileName("a@2010-01-01T00;00;00.txt", *formatter, &date);
  if (zone) ::setenv("TZ", saved.c_str(), 1); else ::unsetenv("TZ");
  ::tzset();
  ASSERT_TRUE(date);
  EXPECT_EQ(date->timeIntervalSince1970(), 1262304000.0);
}

TEST_F(VessaNames, NamesShorterThanAStampAreKept) {
  std::optional<platform::Date> date;
  EXPECT_EQ(strip("@2010-06-17T11;56;2", &date), "@2010-06-17T11;56;2");
  EXPECT_FALSE(date);
  // Long enough as a whole, but not before its extension.
  EXPECT_EQ(strip("a.verylongextension-here", &date), "a.verylongextension-here");
  EXPECT_FALSE(date);
}

TEST_F(VessaNames, WhatDoesNotParseAsAStampIsKept) {
  std::optional<platform::Date> date;
  // Month 13 and hour 24 would roll over if the formatter were lenient.
  EXPECT_EQ(strip("report@2010-13-17T11;56;23.txt", &date), "report@2010-13-17T11;56;23.txt");
  EXPECT_FALSE(date);
  EXPECT_EQ(strip("report@2010-06-17T24;56;23.txt", &date), "report@2010-06-17T24;56;23.txt");
  EXPECT_FALSE(date);
  EXPECT_EQ(strip("report-2010-06-17T11;56;23.txt", &date), "report-2010-06-17T11;56;23.txt");
  EXPECT_FALSE(date);
  EXPECT_EQ(strip("photo@2008-06-17T11:56:23.jpg", &date), "photo@2008-06-17T11:56:23.jpg");
  EXPECT_FALSE(date);
}

TEST_F(VessaNames, TheStampComesBeforeTheLastExtension) {
  std::optional<platform::Date> date;
  EXPECT_EQ(strip("archive.tar@2010-06-17T11;56;23.gz", &date), "archive.tar.gz");
  EXPECT_TRUE(date);
  EXPECT_EQ(strip("Makefile@2010-06-17T11;56;23", &date), "Makefile");
  EXPECT_TRUE(date);
  // A leading dot counts as the extension's dot.
  EXPECT_EQ(strip("@2010-06-17T11;56;23.profile", &date), ".profile");
  EXPECT_TRUE(date);
}

TEST_F(VessaNames, ANameThatIsOnlyAStampIsKept) {
  std::optional<platform::Date> date;
  EXPECT_EQ(strip("@2010-06-17T11;56;23", &date), "@2010-06-17T11;56;23");
  EXPECT_FALSE(date);
}

TEST(VessaFileNames, PerFilePropertyListsAreRecognisedAndNameTheirFile) {
  std::string name;
  EXPECT_TRUE(IsFileAVessaPList(".Vessa report.txt.plist", &name));
  EXPECT_EQ(name, "report.txt");
  EXPECT_TRUE(IsFileAVessaPList(".Vessa .plist", &name));
  EXPECT_EQ(name, "");
  EXPECT_FALSE(IsFileAVessaPList(".Vessa.plist"));
  EXPECT_FALSE(IsFileAVessaPList("Vessa report.txt.plist"));
  EXPECT_FALSE(IsFileAVessaPList(".Vessa report.txt.plst"));
  EXPECT_FALSE(IsFileAVessaPList(".vessa report.txt.plist"));
}

TEST(VessaFileNames, PlanSettingsStateFileAndLeftovers) {
  EXPECT_TRUE(IsVessaBackupPlanSettings(".VessaBackupPlanSettings.plist"));
  EXPECT_FALSE(IsVessaBackupPlanSettings(".vessabackupplansettings.plist"));
  EXPECT_TRUE(IsVessaToQSConversionStateInfo(".vessaToQSConversionStateInfo"));
  EXPECT_TRUE(IsVessaConversionLeftover(".Vessa a.plist"));
  EXPECT_TRUE(IsVessaConversionLeftover(".VessaBackupPlanSettings.plist"));
  EXPECT_TRUE(IsVessaConversionLeftover(".vessaToQSConversionStateInfo"));
  EXPECT_TRUE(IsVessaConversionLeftover("..vessaToQSConversionStateInfo.Ab3dE9"));
  EXPECT_FALSE(IsVessaConversionLeftover("report.txt"));
  EXPECT_FALSE(IsVessaConversionLeftover(".DS_Store"));
}

TEST(VessaFileNames, TheBlackListDecidesByTheStampFreeName) {
  skerrow_test::useShippedBlackList();
  EXPECT_TRUE(IsFileBlackListedByQSBackupButWasNotByVessaBackup(".DS_Store"));
  EXPECT_TRUE(IsFileBlackListedByQSBackupButWasNotByVessaBackup("download.part"));
  EXPECT_FALSE(IsFileBlackListedByQSBackupButWasNotByVessaBackup("report.txt"));
}

}  // namespace
