#include "Engine/support/QSCUtilities.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/FileManager.h"
#include "tests/support/TempDir.h"

TEST(QSCUtilitiesTest, UserNamesAndHomesFallBackStepByStep) {
  EXPECT_EQ(QSCHomeDirectoryForUser("root"), "/root");
  EXPECT_EQ(QSCFullUserNameForUser("no-such-user-skerrow"), "no-such-user-skerrow");
  EXPECT_EQ(QSCHomeDirectoryForUser("no-such-user-skerrow"), "/home/no-such-user-skerrow");
  EXPECT_FALSE(QSCFullUserNameForUser("root").empty());
}

TEST(QSCUtilitiesTest, CatalogInfoDatesAndBundleBit) {
  skerrow_test::TempDir dir;
  if (::setxattr(dir.path().c_str(), "user.probe", "1", 1, 0) != 0) GTEST_SKIP() << "no user attributes here";
  const std::string folder = dir.mkdir("Bundle.app");
  FSCatalogInfo info;
  info.createDate = QSCUTCDateTimeFromDate(platform::Date(100.5));
  info.contentModDate = QSCUTCDateTimeFromDate(platform::Date(200.25));
  EXPECT_EQ(QSCSetCatalogInfo(folder, false, kFSCatInfoCreateDate | kFSCatInfoContentMod, info), noErr);
  FSCatalogInfo back;
  EXPECT_EQ(QSCGetCatalogInfo(folder, false, kFSCatInfoCreateDate | kFSCatInfoContentMod | kFSCatInfoFinderInfo, &back),
            noErr);
  EXPECT_EQ(initWithUTCDateTime(back.createDate), platform::Date(100.5));
  EXPECT_EQ(initWithUTCDateTime(back.contentModDate), platform::Date(200.25));
  EXPECT_EQ(back.finderFlags(), 0);
  EXPECT_TRUE(QSCSetBundleBitOnFolder(folder));
  EXPECT_EQ(QSCGetCatalogInfo(folder, false, kFSCatInfoFinderInfo, &back), noErr);
  EXPECT_EQ(back.finderFlags() & kHasBundle, kHasBundle);
  EXPECT_FALSE(QSCSetBundleBitOnFolder(dir.write("file", "x")));
  EXPECT_EQ(QSCGetCatalogInfo(dir / "missing", false, kFSCatInfoCreateDate, &back), fnfErr);
}

TEST(QSCUtilitiesTest, MoveToTrashOrDelete) {
  skerrow_test::TempDir dir;
  const std::string xdg = dir.mkdir("xdg");
  ::setenv("XDG_DATA_HOME", xdg.c_str(), 1);
  const std::string file = dir.write("doomed.txt", "x");
  const bool trashed = QSCMoveFileToTrash(file, false);
  if (trashed) {
    EXPECT_FALSE(std::filesystem::exists(file));
  } else {
    // Without a usable trash the item stays unless deletion is asked for.
    EXPECT_TRUE(std::filesystem::exists(file));
    EXPECT_TRUE(QSCMoveFileToTrash(file, true));
    EXPECT_FALSE(std::filesystem::exists(file));
  }
  ::unsetenv("XDG_DATA_HOME");
}
