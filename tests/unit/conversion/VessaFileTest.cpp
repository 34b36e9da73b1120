// A legacy file's versions: their order from the per-file property list,
// their new names, and their move into the target tree.
#include "Engine/conversion/VessaFile.h"

#include <gtest/gtest.h>

#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using skerrow_test::gmt;

platform::Value entry(platform::Date lastModified, platform::Date creation) {
  platform::Dictionary d;
  d.set("createDate", platform::Value(lastModified));
  d.set("lastModifiedDate", platform::Value(lastModified));
  d.set("creationDate", platform::Value(creation));
  return platform::Value(std::move(d));
}

const platform::Date kJune = gmt(2010, 6, 17, 11, 56, 23);
const platform::Date kJuly = gmt(2010, 7, 1, 8, 0, 0);
const platform::Date kAugust = gmt(2010, 8, 2, 9, 30, 0);

// Versions as a folder listing gives them (by name), the newest unstamped.
std::shared_ptr<VessaFile> threeVersions() {
  auto file = std::make_shared<VessaFile>("Mac/ann/Documents/home/ann");
  file->addVersion("report.txt", std::nullopt);
  file->addVersion("report@2010-06-17T11;56;23.txt", kJune);
  file->addVersion("report@2010-07-01T08;00;00.txt", kJuly);
  return file;
}

TEST(VessaFile, VersionsAreOrderedByThePropertyListAndTakeItsDates) {
  auto file = threeVersions();
  file->setVessaPropertyList(platform::Array{entry(kJune.addingTimeInterval(-60), kJune),
                                             entry(kJuly.addingTimeInterval(-60), kJuly),
                                             entry(kAugust, kAugust)});
  file->cleanUpVersionsOfFile();
  EXPECT_EQ(file->versionsOfFile(), (std::vector<std::string>{"report@2010-06-17T11;56;23.txt",
                                                              "report@2010-07-01T08;00;00.txt", "report.txt"}));
  ASSERT_EQ(file->lastModifiedDatesOfVersionsOfFile().size(), 3u);
  EXPECT_EQ(file->lastModifiedDatesOfVersionsOfFile()[0], kJune.addingTimeInterval(-60));
  EXPECT_EQ(file->lastModifiedDatesOfVersionsOfFile()[2], kAugust);
  EXPECT_EQ(file->timeStampsOfVersionsOfFile()[2], std::nullopt);
}

TEST(VessaFile, VersionsNoEntryNamesFollowInTheirEarlierOrderWithTheirOwnDates) {
  auto file = threeVersions();
  // Only the July version is described; the last entry finds the unstamped copy.
  file->setVessaPropertyList(platform::Array{entry(kJuly, kJuly), entry(kAugust, kAugust)});
  file->cleanUpVersionsOfFile();
  EXPECT_EQ(file->versionsOfFile(), (std::vector<std::string>{"report@2010-07-01T08;00;00.txt", "report.txt",
                                                              "report@2010-06-17T11;56;23.txt"}));
  EXPECT_EQ(file->lastModifiedDatesOfVersionsOfFile()[2], std::nullopt);
}

TEST(VessaFile, AnEntryWhoseVersionIsTakenAlreadyIsSkipped) {
  auto file = threeVersions();
  file->setVessaPropertyList(platform::Array{entry(kJune, kJune), entry(kJune, kJune), entry(kAugust, kAugust)});
  file->cleanUpVersionsOfFile();
  EXPECT_EQ(file->versionsOfFile(), (std::vector<std::string>{"report@2010-06-17T11;56;23.txt", "report.txt",
                                                              "report@2010-07-01T08;00;00.txt"}));
}

TEST(VessaFile, ReassignmentNamesTheVersionsInTheCleanedOrderAndKeepsNamesGiven) {
  auto file = threeVersions();
  file->setVessaPropertyList(platform::Array{entry(kJune, kJune), entry(kJuly, kJuly), entry(kAugust, kAugust)});
  file->performPathReassignmentWithOriginalName("report.txt");
  EXPECT_EQ(file->versionsOfFileForQSBackup(), (std::vector<std::string>{"report@0.txt", "report@1.txt", "report@2.txt"}));
  EXPECT_EQ(file->versionsOfFile().back(), "report.txt");
  // Repeating the step after an interruption changes nothing.
  file->performPathReassignmentWithOriginalName("report.txt");
  EXPECT_EQ(file->versionsOfFileForQSBackup().size(), 3u);
  EXPECT_EQ(file->versionsOfFileForQSBackup()[1], "report@1.txt");
}

TEST(VessaFile, AFileWithoutPropertyListGetsNoNewNames) {
  auto file = threeVersions();
  file->performPathReassignmentWithOriginalName("report.txt");
  EXPECT_TRUE(file->versionsOfFileForQSBackup().empty());
  EXPECT_EQ(file->versionsOfFile().front(), "report.txt");
}

TEST(VessaFile, ArchiveRoundTripKeepsEveryField) {
  auto file = threeVersions();
  file->setVessaPropertyList(platform::Array{entry(kJune, kJune), entry(kJuly, kJuly), entry(kAugust, kAugust)});
  file->performPathReassignmentWithOriginalName("report.txt");
  const auto back = VessaFile::initWithArchive(file->archive());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->relativePathToFile(), file->relativePathToFile());
  EXPECT_EQ(back->versionsOfFile(), file->versionsOfFile());
  EXPECT_EQ(back->timeStampsOfVersionsOfFile(), file->timeStampsOfVersionsOfFile());
  EXPECT_EQ(back->lastModifiedDatesOfVersionsOfFile(), file->lastModifiedDatesOfVersionsOfFile());
  EXPECT_EQ(back->versionsOfFileForQSBackup(), file->versionsOfFileForQSBackup());
  ASSERT_TRUE(back->vessaPropertyList());
  EXPECT_EQ(platform::Value(*back->vessaPropertyList()), platform::Value(*file->vessaPropertyList()));
}

TEST(VessaFile, ArchivesThatLeadOutOfTheLegacyFolderDoNotDecode) {
  auto file = threeVersions();
  platform::Dictionary archive = file->archive();
  archive.set("relativePathToFile", platform::Value("Mac/../../etc"));
  EXPECT_FALSE(VessaFile::initWithArchive(archive));
  archive = file->archive();
  archive.set("relativePathToFile", platform::Value("/etc"));
  EXPECT_FALSE(VessaFile::initWithArchive(archive));
  archive = file->archive();
  archive.set("versionsOfFile", platform::Value(platform::Array{platform::Value("../passwd"), platform::Value("a"),
                                                                platform::Value("b")}));
  EXPECT_FALSE(VessaFile::initWithArchive(archive));
  archive = file->archive();
  archive.set("versionsOfFileForQSBackup", platform::Value(platform::Array{platform::Value("x/y")}));
  EXPECT_FALSE(VessaFile::initWithArchive(archive));
}

TEST(VessaFile, ArchivesWithListsOfUnequalLengthDoNotDecode) {
  auto file = threeVersions();
  platform::Dictionary archive = file->archive();
  archive.set("timeStampsOfVersionsOfFile", platform::Value(platform::Array{platform::Value("$null")}));
  EXPECT_FALSE(VessaFile::initWithArchive(archive));
  archive = file->archive();
  archive.set("versionsOfFileForQSBackup",
              platform::Value(platform::Array{platform::Value("a@0"), platform::Value("a@1"), platform::Value("a@2"),
                                              platform::Value("a@3")}));
  EXPECT_FALSE(VessaFile::initWithArchive(archive));
}

}  // namespace
