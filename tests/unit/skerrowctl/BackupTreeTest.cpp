// The stored files of a backup folder, the view of them at a date, and uid prefixes.
#include "tools/skerrowctl/BackupTree.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tools/skerrowctl/BackupView.h"
#include "tools/skerrowctl/CommandsInternal.h"
#include "tools/skerrowctl/Context.h"

namespace {

using namespace skerrowctl;

// A stored copy whose modification time is `when` (seconds since 1970).
void store(const skerrow_test::TempDir& dir, const std::string& name, const std::string& contents, time_t when) {
  const std::string path = dir.write(name, contents);
  const timeval times[2] = {{when, 0}, {when, 0}};
  ASSERT_EQ(::utimes(path.c_str(), times), 0);
}

platform::Date at(time_t seconds) { return platform::Date::dateWithTimeIntervalSince1970(static_cast<double>(seconds)); }

TEST(BackupTreeTest, CopiesAreGroupedByFileAndNonCopiesAreLeftOut) {
  skerrow_test::TempDir dir;
  store(dir, ".com.qsc.backupinfo", "<plist/>", 1000);
  store(dir, "Documents/report@0.txt", "one", 1000);
  store(dir, "Documents/report@1.txt", "two", 2000);
  store(dir, "Documents/Report@2.txt", "three", 3000);
  store(dir, "Documents/.skerrow-1-2.tmp", "half", 3000);
  store(dir, "Documents/notes.txt", "not a copy", 3000);
  store(dir, "@0.profile", "p", 1000);
  store(dir, "Pictures/Deep/er/a@0.jpg", "jpg", 1000);
  VersionError error;
  const auto listing = listBackupTree(dir.path(), "", &error);
  ASSERT_TRUE(listing) << error.message;
  std::vector<std::string> paths;
  for (const auto& f : listing->files) paths.push_back(f.path);
  EXPECT_EQ(paths, (std::vector<std::string>{".profile", "Documents/Report.txt", "Pictures/Deep/er/a.jpg"}));
  ASSERT_EQ(listing->files[1].versions.size(), 3u);
  EXPECT_EQ(listing->files[1].versions.back().index, 2u);
  std::vector<std::string> folders;
  for (const auto& f : listing->folders) folders.push_back(f.path);
  EXPECT_EQ(folders, (std::vector<std::string>{"", "Documents", "Pictures", "Pictures/Deep", "Pictures/Deep/er"}));
}

TEST(BackupTreeTest, AFolderNotInTheBackupIsSaidSo) {
  skerrow_test::TempDir dir;
  VersionError error;
  EXPECT_FALSE(listBackupTree(dir.path(), "Nowhere", &error));
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
  EXPECT_FALSE(isBackupFolder(dir.path(), "Nowhere"));
  EXPECT_TRUE(isBackupFolder(dir.path(), ""));
}

TEST(BackupTreeTest, ALinkInPlaceOfAFolderIsNotFollowed) {
  skerrow_test::TempDir dir;
  skerrow_test::TempDir elsewhere;
  store(elsewhere, "secret@0.txt", "s", 1000);
  ASSERT_EQ(::symlink(elsewhere.path().c_str(), (dir / "Documents").c_str()), 0);
  VersionError error;
  const auto listing = listBackupTree(dir.path(), "", &error);
  ASSERT_TRUE(listing);
  EXPECT_TRUE(listing->files.empty());
  EXPECT_FALSE(isBackupFolder(dir.path(), "Documents"));
}

TEST(BackupTreeTest, TheVersionAtADateIsTheNewestModifiedNotAfterIt) {
  skerrow_test::TempDir dir;
  store(dir, "a@0.txt", "one", 1000);
  store(dir, "a@1.txt", "two", 2000);
  VersionError error;
  const auto listing = listBackupTree(dir.path(), "", &error);
  ASSERT_TRUE(listing);
  const auto& versions = listing->files.at(0).versions;
  EXPECT_EQ(versionAt(versions, std::nullopt)->index, 1u);
  EXPECT_EQ(versionAt(versions, at(2000))->index, 1u);
  EXPECT_EQ(versionAt(versions, at(1999))->index, 0u);
  EXPECT_EQ(versionAt(versions, at(999)), nullptr);
}

TEST(BackupViewTest, TheHomeAsItWasUnderPlainNames) {
  skerrow_test::TempDir dir;
  store(dir, "Documents/report@0.txt", "one", 1000);
  store(dir, "Documents/report@1.txt", "two!", 2000);
  store(dir, "Documents/new@0.txt", "new", 3000);
  store(dir, "@0.profile", "p", 1000);
  VersionError error;
  const auto listing = listBackupTree(dir.path(), "", &error);
  ASSERT_TRUE(listing);
  const BackupView newest = BackupView::build(*listing, std::nullopt);
  ASSERT_TRUE(newest.find("/Documents/report.txt"));
  EXPECT_EQ(newest.find("/Documents/report.txt")->stored, "Documents/report@1.txt");
  EXPECT_EQ(newest.find("/Documents/report.txt")->size, 4u);
  EXPECT_TRUE(newest.find("/.profile"));
  EXPECT_TRUE(newest.find("/")->folder);
  EXPECT_EQ(newest.find("/")->children, (std::vector<std::string>{".profile", "Documents"}));
  EXPECT_EQ(newest.find("/Documents")->children, (std::vector<std::string>{"new.txt", "report.txt"}));
  EXPECT_EQ(newest.fileCount(), 3u);
  const BackupView then = BackupView::build(*listing, at(1500));
  EXPECT_EQ(then.find("/Documents/report.txt")->stored, "Documents/report@0.txt");
  EXPECT_FALSE(then.find("/Documents/new.txt"));
  EXPECT_EQ(then.find("/Documents")->children, std::vector<std::string>{"report.txt"});
  EXPECT_EQ(then.fileCount(), 2u);
}

TEST(SkerrowctlUIDTest, AUniquePrefixNamesABackupAsGitNamesACommit) {
  const std::vector<std::string> uids = {"5E4B0C1A-0000-4000-8000-00000000A11E", "5E4B0C1B-0000-4000-8000-00000000A11E",
                                         "77AA0000-0000-4000-8000-000000000000"};
  EXPECT_EQ(uidForPrefix("77", uids), uids[2]);
  EXPECT_EQ(uidForPrefix("5e4b0c1b", uids), uids[1]);
  EXPECT_EQ(uidForPrefix(uids[0], uids), uids[0]);
  EXPECT_FALSE(uidForPrefix("99", uids));
  EXPECT_FALSE(uidForPrefix("", uids));
  try {
    uidForPrefix("5E4B", uids);
    ADD_FAILURE() << "an ambiguous prefix was taken";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status, kExitUsage);
    EXPECT_NE(failure.message.find(uids[0]), std::string::npos);
    EXPECT_NE(failure.message.find(uids[1]), std::string::npos);
  }
  EXPECT_EQ(shortUID(uids[2], uids), "77AA0000");
  EXPECT_EQ(shortUID(uids[0], uids), "5E4B0C1A");
  EXPECT_EQ(shortUID("5E4B0C1A-1", {"5E4B0C1A-1", "5E4B0C1A-2"}), "5E4B0C1A-1");
}

}  // namespace
