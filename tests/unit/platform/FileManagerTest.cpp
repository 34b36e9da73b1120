#include "platform/FileManager.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>

#include "Engine/support/QSCUtilities.h"
#include "tests/support/TempDir.h"

using platform::FileManager;

TEST(FileManagerTest, ExistenceWithoutFollowingOnALinkToAFolderIsTrueButNotAFolder) {
  skerrow_test::TempDir dir;
  const std::string folder = dir.mkdir("folder");
  ASSERT_EQ(::symlink(folder.c_str(), (dir / "link").c_str()), 0);
  bool isDirectory = true;
  EXPECT_TRUE(FileManager::fileExistsAtPath_isDirectory_traverseLink(dir / "link", &isDirectory, false));
  EXPECT_FALSE(isDirectory);
  EXPECT_TRUE(FileManager::fileExistsAtPath_isDirectory_traverseLink(dir / "link", &isDirectory, true));
  EXPECT_TRUE(isDirectory);
  EXPECT_FALSE(FileManager::fileExistsAtPath_isDirectory_traverseLink(dir / "missing", &isDirectory, false));
  EXPECT_FALSE(isDirectory);
  ASSERT_EQ(::symlink("missing", (dir / "dangling").c_str()), 0);
  EXPECT_TRUE(FileManager::fileExistsAtPath_traverseLink(dir / "dangling", false));
  EXPECT_FALSE(FileManager::fileExistsAtPath_traverseLink(dir / "dangling", true));
  EXPECT_FALSE(FileManager::isDirectoryAtPath_error(dir / "link", nullptr));
  EXPECT_TRUE(FileManager::isDirectoryAtPath_error(folder, nullptr));
}

// Linux files have one fork: the full size is the data size.
TEST(FileManagerTest, FullFileSizeIsTheDataSizeAndZeroForAFolder) {
  skerrow_test::TempDir dir;
  const std::string file = dir.write("ten", "0123456789");
  uint64_t physical = 1;
  EXPECT_EQ(FileManager::fullFileSizeForPath_physicalSize_traverseLink(file, &physical, false), 10u);
  EXPECT_GE(physical, 0u);
  EXPECT_EQ(FileManager::fullFileSizeForPath_physicalSize_traverseLink(dir.path(), &physical, false), 0u);
  EXPECT_EQ(physical, 0u);
  EXPECT_EQ(FileManager::fullFileSizeForPath_physicalSize_traverseLink(dir / "missing", nullptr, false), 0u);
}

TEST(FileManagerTest, ExtendedAttributeNamesOfAFileWithoutAnyAreNothing) {
  skerrow_test::TempDir dir;
  const std::string file = dir.write("plain", "x");
  EXPECT_FALSE(FileManager::extendedAttributesForPath_traverseLink(file, false).has_value());
  if (::setxattr(file.c_str(), "user.a", "1", 1, 0) != 0) GTEST_SKIP() << "no user attributes here";
  ASSERT_EQ(::setxattr(file.c_str(), "user.b", "2", 1, 0), 0);
  auto names = FileManager::extendedAttributesForPath_traverseLink(file, false);
  ASSERT_TRUE(names.has_value());
  std::sort(names->begin(), names->end());
  EXPECT_EQ(*names, (std::vector<std::string>{"user.a", "user.b"}));
}

TEST(FileManagerTest, FileAttributesFlagsAndDates) {
  skerrow_test::TempDir dir;
  const std::string file = dir.write("f", "x");
  platform::FileTime t{1000000000, 500000000};
  ASSERT_TRUE(FileManager::setTimes(file, nullptr, &t, false));
  bool isDirectory = true, isRegular = false, isLink = true;
  double created = 0, modified = 0;
  EXPECT_TRUE(FileManager::
                  getFileAttributesAtPath_isDirectory_isRegularFile_isSymbolicLink_creationDateSecondsSinceReferenceDate_modificationDateSecondsSinceReferenceDate(
                      file, &isDirectory, &isRegular, &isLink, &created, &modified));
  EXPECT_FALSE(isDirectory);
  EXPECT_TRUE(isRegular);
  EXPECT_FALSE(isLink);
  EXPECT_DOUBLE_EQ(modified, 1000000000.5 - 978307200.0);
  EXPECT_FALSE(FileManager::
                   getFileAttributesAtPath_isDirectory_isRegularFile_isSymbolicLink_creationDateSecondsSinceReferenceDate_modificationDateSecondsSinceReferenceDate(
                       dir / "missing", &isDirectory, &isRegular, &isLink, &created, &modified));
  EXPECT_FALSE(isRegular);
  EXPECT_EQ(modified, 0);
}

TEST(FileManagerTest, RemoveItemRemovesFoldersButNeverFollowsLinks) {
  skerrow_test::TempDir dir;
  dir.write("keep/precious.txt", "p");
  dir.write("gone/a/b.txt", "b");
  ASSERT_EQ(::symlink((dir / "keep").c_str(), (dir / "gone/a/link").c_str()), 0);
  EXPECT_TRUE(FileManager::removeItemAtPath(dir / "gone"));
  EXPECT_FALSE(std::filesystem::exists(dir / "gone"));
  EXPECT_EQ(dir.read("keep/precious.txt"), "p");
  EXPECT_TRUE(FileManager::removeItemAtPath(dir / "never-was"));
}

TEST(FileManagerTest, InsureAndCreateDirectories) {
  skerrow_test::TempDir dir;
  EXPECT_TRUE(FileManager::insureDirectoryAtPath(dir / "a/b/c"));
  EXPECT_TRUE(FileManager::insureDirectoryAtPath(dir / "a/b/c"));
  dir.write("file", "x");
  EXPECT_FALSE(FileManager::insureDirectoryAtPath(dir / "file"));
  platform::FileError error;
  EXPECT_FALSE(FileManager::createDirectoryAtPath(dir / "x/y", false, 0755, &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_TRUE(FileManager::freeSpaceAtPath(dir.path()).has_value());
}

TEST(FileManagerTest, CreateDirectoryReplacesAPlainFileOfTheSameName) {
  skerrow_test::TempDir dir;
  dir.write("spot", "a file in the way");
  EXPECT_TRUE(QSCCreateDirectoryIfNeededAndDeleteFileIfNamePresent(dir / "spot", nullptr, nullptr));
  EXPECT_TRUE(std::filesystem::is_directory(dir / "spot"));
  dir.write("spot/inside", "i");
  platform::Dictionary attributes{{"NSFilePosixPermissions", platform::Value::integer(0700)}};
  EXPECT_TRUE(QSCCreateDirectoryIfNeededAndDeleteFileIfNamePresent(dir / "spot", &attributes, nullptr));
  EXPECT_EQ(dir.read("spot/inside"), "i");  // an existing folder is left as it is
  EXPECT_TRUE(QSCCreateDirectoryIfNeededAndDeleteFileIfNamePresent(dir / "new", &attributes, nullptr));
  EXPECT_EQ(std::filesystem::status(dir / "new").permissions(), std::filesystem::perms::owner_all);
}
