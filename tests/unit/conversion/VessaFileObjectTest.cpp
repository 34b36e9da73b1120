// Reading a legacy category folder into file and folder objects.
#include "Engine/conversion/VessaFileObject.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "Engine/conversion/VessaFile.h"
#include "Engine/conversion/VessaFolder.h"
#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using namespace skerrow_test;

class VessaTree : public ::testing::Test {
 protected:
  void SetUp() override {
    useShippedBlackList();
    std::filesystem::create_directories(dir / "volume/QS Tidevault");
    conversion = conversionOf(dir / "volume", nullptr);
    ASSERT_TRUE(conversion);
    conversion->setCurrentStateOfConversion(1);
  }
  VessaFileObjects read(const std::string& relative) {
    auto folder = conversion->volume().openFolder("QS Tidevault/" + relative);
    EXPECT_TRUE(folder);
    return folder ? CreateTreeOfVessaContentsAtPath(*folder, relative, conversion.get()) : VessaFileObjects();
  }
  TempDir dir;
  std::unique_ptr<QSVessaConversion> conversion;
};

TEST_F(VessaTree, StampedFilesBecomeVersionsOfTheirPlainNameAndPropertyListsAttach) {
  const std::string f = dir / "volume/QS Tidevault/c";
  LegacyWriter::write(f + "/report@2010-06-17T11;56;23.txt", "old");
  LegacyWriter::write(f + "/report.txt", "new");
  LegacyWriter::plist(f, "report.txt", {{gmt(2010, 6, 17, 11, 0, 0), gmt(2010, 6, 17, 11, 56, 23)},
                                         {gmt(2010, 7, 1, 0, 0, 0), gmt(2010, 7, 1, 0, 0, 0)}});
  LegacyWriter::write(f + "/notes.txt", "notes");
  const VessaFileObjects tree = read("c");
  ASSERT_EQ(tree.size(), 2u);
  const auto* report = dynamic_cast<const VessaFile*>(tree.at("report.txt").get());
  ASSERT_TRUE(report);
  EXPECT_EQ(report->relativePathToFile(), "c");
  EXPECT_EQ(report->versionsOfFile(), (std::vector<std::string>{"report.txt", "report@2010-06-17T11;56;23.txt"}));
  EXPECT_EQ(report->timeStampsOfVersionsOfFile()[1], gmt(2010, 6, 17, 11, 56, 23));
  ASSERT_TRUE(report->vessaPropertyList());
  EXPECT_EQ(report->vessaPropertyList()->size(), 2u);
  const auto* notes = dynamic_cast<const VessaFile*>(tree.at("notes.txt").get());
  ASSERT_TRUE(notes);
  EXPECT_EQ(notes->timeStampsOfVersionsOfFile(), (std::vector<std::optional<platform::Date>>{std::nullopt}));
  EXPECT_FALSE(notes->vessaPropertyList());
}

TEST_F(VessaTree, SubfoldersBecomeFolderEntriesWithTheirOwnFiles) {
  const std::string f = dir / "volume/QS Tidevault/c";
  LegacyWriter::write(f + "/Sub/Deeper/a.txt", "a");
  const VessaFileObjects tree = read("c");
  ASSERT_TRUE(tree.count("Sub"));
  ASSERT_TRUE(tree.at("Sub")->isDirectory());
  const auto& sub = dynamic_cast<const VessaFolder&>(*tree.at("Sub")).fileObjects();
  const auto& deeper = dynamic_cast<const VessaFolder&>(*sub.at("Deeper")).fileObjects();
  const auto* a = dynamic_cast<const VessaFile*>(deeper.at("a.txt").get());
  ASSERT_TRUE(a);
  EXPECT_EQ(a->relativePathToFile(), "c/Sub/Deeper");
}

TEST_F(VessaTree, SettingsStateFileAndBlackListedFilesAreLeftOut) {
  const std::string f = dir / "volume/QS Tidevault/c";
  LegacyWriter::write(f + "/.VessaBackupPlanSettings.plist", "x");
  LegacyWriter::write(f + "/.vessaToQSConversionStateInfo", "x");
  LegacyWriter::write(f + "/.DS_Store", "x");
  LegacyWriter::write(f + "/download@2010-06-17T11;56;23.part", "x");
  LegacyWriter::write(f + "/kept.txt", "x");
  const VessaFileObjects tree = read("c");
  ASSERT_EQ(tree.size(), 1u);
  EXPECT_TRUE(tree.count("kept.txt"));
}

TEST_F(VessaTree, SymbolicLinksAreNeverFollowed) {
  const std::string f = dir / "volume/QS Tidevault/c";
  std::filesystem::create_directories(f);
  LegacyWriter::write(dir / "outside/secret.txt", "secret");
  ASSERT_EQ(::symlink((dir / "outside").c_str(), (f + "/link").c_str()), 0);
  const VessaFileObjects tree = read("c");
  ASSERT_TRUE(tree.count("link"));
  // The link is a file entry of its own (moved as a link), not a folder to enter.
  EXPECT_TRUE(tree.at("link")->isFile());
}

TEST_F(VessaTree, AFileAndAFolderOfTheSameNameKeepTheFirstAndLeaveTheOther) {
  const std::string f = dir / "volume/QS Tidevault/c";
  LegacyWriter::write(f + "/a.txt/inside.txt", "in a folder");
  LegacyWriter::write(f + "/a@2010-06-17T11;56;23.txt", "a version");
  const VessaFileObjects tree = read("c");
  ASSERT_TRUE(tree.count("a.txt"));
  EXPECT_TRUE(tree.at("a.txt")->isDirectory());
}

TEST_F(VessaTree, FolderArchiveRoundTrip) {
  const std::string f = dir / "volume/QS Tidevault/c";
  LegacyWriter::write(f + "/Sub/a@2010-06-17T11;56;23.txt", "a");
  LegacyWriter::write(f + "/Sub/a.txt", "b");
  VessaFolder folder(read("c"));
  const auto back = VessaFolder::initWithArchive(folder.archive());
  ASSERT_TRUE(back);
  EXPECT_EQ(platform::Value(back->archive()), platform::Value(folder.archive()));
  platform::Dictionary hostile = folder.archive();
  platform::Dictionary objects;
  objects.set("..", platform::Value(VessaFolder().archive()));
  hostile.set("fileObjects", platform::Value(objects));
  EXPECT_FALSE(VessaFolder::initWithArchive(hostile));
}

}  // namespace
