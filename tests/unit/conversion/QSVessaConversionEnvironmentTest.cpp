// What the conversion takes from the machine: renames and the trash.
#include "Engine/conversion/QSVessaConversionEnvironment.h"

#include <gtest/gtest.h>

#include "platform/VolumeTree.h"
#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using namespace skerrow_test;

TEST(QSVessaConversionEnvironment, RenamingAFolderNeverReplacesAnother) {
  TempDir dir;
  dir.write("v/a/file", "a");
  dir.write("v/b/file", "b");
  auto volume = platform::VolumeTree::open(dir / "v");
  ASSERT_TRUE(volume);
  EXPECT_EQ(QSVessaConversionEnvironment::renameFolderOnVolume(*volume, "a", "b"), EEXIST);
  EXPECT_EQ(dir.read("v/b/file"), "b");
  EXPECT_EQ(QSVessaConversionEnvironment::renameFolderOnVolume(*volume, "a", "c"), 0);
  EXPECT_EQ(dir.read("v/c/file"), "a");
}

TEST(QSVessaConversionEnvironment, TheTrashIsTheVolumesOwn) {
  TempDir dir;
  dir.write("v/legacy/.Vessa a.plist", "x");
  auto volume = platform::VolumeTree::open(dir / "v");
  EXPECT_TRUE(QSVessaConversionEnvironment::moveToTrashOnVolume(*volume, "legacy"));
  EXPECT_FALSE(exists(dir / "v/legacy"));
  EXPECT_EQ(dir.read("v/.Trash-" + std::to_string(::geteuid()) + "/files/legacy/.Vessa a.plist"), "x");
  // Something already gone is not there any more: nothing to do.
  EXPECT_TRUE(QSVessaConversionEnvironment::moveToTrashOnVolume(*volume, "legacy"));
}

TEST(QSVessaConversionEnvironment, WithoutATrashOnlyTheConversionsOwnFilesAreRemoved) {
  TempDir dir;
  dir.write("v/legacy/c/u/Documents/.VessaBackupPlanSettings.plist", "x");
  dir.write("v/legacy/c/u/Documents/home/u/.Vessa a.txt.plist", "x");
  dir.write("v/legacy/.vessaToQSConversionStateInfo", "x");
  dir.write("v/legacy/c/u/Other/home/u/.DS_Store", "a user's file, black-listed or not");
  dir.mkdir("v/legacy/c/u/Music/home/u/empty");
  auto volume = platform::VolumeTree::open(dir / "v");
  EXPECT_FALSE(QSVessaConversionEnvironment::removeConversionLeftovers(*volume, "legacy"));
  EXPECT_EQ(dir.read("v/legacy/c/u/Other/home/u/.DS_Store"), "a user's file, black-listed or not");
  EXPECT_FALSE(exists(dir / "v/legacy/c/u/Documents"));
  EXPECT_FALSE(exists(dir / "v/legacy/c/u/Music"));
  EXPECT_FALSE(exists(dir / "v/legacy/.vessaToQSConversionStateInfo"));
  std::filesystem::remove(dir / "v/legacy/c/u/Other/home/u/.DS_Store");
  EXPECT_TRUE(QSVessaConversionEnvironment::removeConversionLeftovers(*volume, "legacy"));
  EXPECT_FALSE(exists(dir / "v/legacy"));
}

}  // namespace
