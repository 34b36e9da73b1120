#include "platform/FileCopier.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "platform/FileManager.h"
#include "tests/support/TempDir.h"

using platform::CopyOptions;
using platform::FileAttributes;
using platform::FileCopier;
using platform::FileError;
using platform::FileManager;

namespace {

bool copyPath(const std::string& from, const std::string& to, bool dates, bool deleteFirst, bool deleteIfError,
              FileError* error = nullptr) {
  return FileCopier::
      copyPath_toPath_setCreationDateFromSourcePath_setModifcationDateFromSourcePath_deleteDestinationFileFirst_deleteDestinationFileIfError_error(
          from, to, dates, dates, deleteFirst, deleteIfError, error);
}

FileAttributes attributesOf(const std::string& path, bool preferStored = false) {
  FileAttributes a;
  EXPECT_TRUE(FileManager::attributesAtPath(path, &a, preferStored)) << path;
  return a;
}

void setMtime(const std::string& path, int64_t seconds, uint32_t nanoseconds) {
  platform::FileTime t{seconds, nanoseconds};
  ASSERT_TRUE(FileManager::setTimes(path, &t, &t, false));
}

bool userAttributesSupported(const std::string& path) {
  if (::lsetxattr(path.c_str(), "user.skerrow.probe", "1", 1, 0) != 0) return false;
  ::lremovexattr(path.c_str(), "user.skerrow.probe");
  return true;
}

size_t entriesIn(const std::string& folder) {
  size_t n = 0;
  for (const auto& e : std::filesystem::directory_iterator(folder)) {
    (void)e;
    ++n;
  }
  return n;
}

}  // namespace

TEST(FileCopierTest, CopyOntoAnExistingFileReplacesOnlyWithDeleteFirstAndDeleteIfErrorRemovesIt) {
  skerrow_test::TempDir dir;
  const std::string from = dir.write("from", "new contents");
  const std::string to = dir.write("to", "old");
  FileError error;
  EXPECT_FALSE(copyPath(from, to, true, false, false, &error));
  EXPECT_EQ(error.code, EEXIST);
  EXPECT_EQ(dir.read("to"), "old");
  EXPECT_TRUE(copyPath(from, to, true, true, false));
  EXPECT_EQ(dir.read("to"), "new contents");
  dir.write("to", "old again");
  EXPECT_FALSE(copyPath(from, to, true, false, true));
  EXPECT_FALSE(std::filesystem::exists(to));
  EXPECT_EQ(entriesIn(dir.path()), 1u);  // no temporary file left
}

TEST(FileCopierTest, DateOptionsCarryTheSourcesDatesOtherwiseTheCopyKeepsItsOwn) {
  skerrow_test::TempDir dir;
  const std::string from = dir.write("from", "x");
  setMtime(from, 1000000000, 123456789);
  ASSERT_TRUE(copyPath(from, dir / "with", true, false, false));
  const FileAttributes with = attributesOf(dir / "with", true);
  EXPECT_EQ(with.modificationTime, (platform::FileTime{1000000000, 123456789}));
  const FileAttributes source = attributesOf(from);
  if (userAttributesSupported(dir.path()) && source.creationSource != FileAttributes::CreationSource::None) {
    EXPECT_EQ(with.creationSource, FileAttributes::CreationSource::StoredAttribute);
    EXPECT_EQ(with.creationTime, source.creationTime);
  }
  ASSERT_TRUE(copyPath(from, dir / "without", false, false, false));
  const FileAttributes without = attributesOf(dir / "without", true);
  EXPECT_GT(without.modificationTime.seconds, 1600000000);  // made now
  EXPECT_NE(without.creationSource, FileAttributes::CreationSource::StoredAttribute);
}

TEST(FileCopierTest, CopyKeepsModeOwnerNanosecondTimesAndExtendedAttributes) {
  skerrow_test::TempDir dir;
  const std::string from = dir.write("private", "secret-ish");
  ASSERT_EQ(::chmod(from.c_str(), 0640), 0);
  const bool xattrs = userAttributesSupported(dir.path());
  if (xattrs) {
    ASSERT_EQ(::setxattr(from.c_str(), "user.tag", "blue", 4, 0), 0);
  }
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(from.c_str(), 65534, 65534), 0);
  }
  setMtime(from, 1234567890, 987654321);
  ASSERT_TRUE(copyPath(from, dir / "copy", true, false, false));
  const FileAttributes a = attributesOf(from), b = attributesOf(dir / "copy");
  EXPECT_EQ(b.mode, a.mode);
  EXPECT_EQ(b.uid, a.uid);
  EXPECT_EQ(b.gid, a.gid);
  EXPECT_EQ(b.modificationTime, a.modificationTime);
  EXPECT_EQ(b.accessTime, a.accessTime);
  EXPECT_EQ(dir.read("copy"), "secret-ish");
  if (xattrs) {
    char value[8] = {};
    EXPECT_EQ(::getxattr((dir / "copy").c_str(), "user.tag", value, sizeof value), 4);
    EXPECT_STREQ(value, "blue");
  }
}

TEST(FileCopierTest, SymbolicLinksAreCopiedAsLinks) {
  skerrow_test::TempDir dir;
  ASSERT_EQ(::symlink("/etc/hostname", (dir / "link").c_str()), 0);
  ASSERT_TRUE(copyPath(dir / "link", dir / "copy", true, false, false));
  EXPECT_TRUE(std::filesystem::is_symlink(dir / "copy"));
  EXPECT_EQ(std::filesystem::read_symlink(dir / "copy"), "/etc/hostname");
}

TEST(FileCopierTest, FoldersAreCopiedRecursivelyWithTheirTimes) {
  skerrow_test::TempDir dir;
  dir.write("tree/a.txt", "a");
  dir.write("tree/sub/b.txt", "b");
  ASSERT_EQ(::symlink("a.txt", (dir / "tree/l").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir / "tree/fifo").c_str(), 0600), 0);
  setMtime(dir / "tree/sub", 1500000000, 5);
  setMtime(dir / "tree", 1400000000, 7);
  ASSERT_TRUE(copyPath(dir / "tree", dir / "copy", true, false, false));
  EXPECT_EQ(dir.read("copy/a.txt"), "a");
  EXPECT_EQ(dir.read("copy/sub/b.txt"), "b");
  EXPECT_TRUE(std::filesystem::is_symlink(dir / "copy/l"));
  EXPECT_FALSE(std::filesystem::exists(dir / "copy/fifo"));  // pipes are not copied
  EXPECT_EQ(attributesOf(dir / "copy/sub").modificationTime, (platform::FileTime{1500000000, 5}));
  EXPECT_EQ(attributesOf(dir / "copy").modificationTime, (platform::FileTime{1400000000, 7}));
}

TEST(FileCopierTest, SourcePathThroughASymbolicLinkIsRefused) {
  skerrow_test::TempDir dir;
  dir.write("home/real/secret.txt", "not to be copied through a link");
  ASSERT_EQ(::symlink((dir / "home/real").c_str(), (dir / "home/link").c_str()), 0);
  ASSERT_EQ(::symlink((dir / "home/real/secret.txt").c_str(), (dir / "home/file-link").c_str()), 0);
  const std::string dest = dir.mkdir("dest");
  FileError error;
  EXPECT_FALSE(FileCopier::copyBeneath(dir / "home", "link/secret.txt", dest, "copy", CopyOptions{}, &error));
  EXPECT_EQ(error.code, ELOOP);
  EXPECT_NE(error.localizedFailureReason().find(dir / "home/link"), std::string::npos) << error.localizedFailureReason();
  EXPECT_FALSE(FileCopier::copyBeneath(dir / "home", "../home/real/secret.txt", dest, "copy", CopyOptions{}, &error));
  // A link as the item itself is copied as a link, never followed.
  ASSERT_TRUE(FileCopier::copyBeneath(dir / "home", "file-link", dest, "copy", CopyOptions{}, &error));
  EXPECT_TRUE(std::filesystem::is_symlink(dest + "/copy"));
  EXPECT_EQ(entriesIn(dest), 1u);
}

TEST(FileCopierTest, DestinationFolderThroughASymbolicLinkIsRefused) {
  skerrow_test::TempDir dir;
  dir.write("home/a.txt", "a");
  const std::string volume = dir.mkdir("volume");
  const std::string elsewhere = dir.mkdir("elsewhere");
  ASSERT_EQ(::symlink(elsewhere.c_str(), (volume + "/backup").c_str()), 0);
  FileError error;
  EXPECT_FALSE(FileCopier::copyBeneath(dir / "home", "a.txt", volume, "backup/a@0.txt", CopyOptions{}, &error));
  EXPECT_EQ(entriesIn(elsewhere), 0u);
}

TEST(FileCopierTest, DestinationOnAnotherDeviceThanTheVolumeIsRefused) {
  skerrow_test::TempDir dir;
  dir.write("home/a.txt", "a");
  const std::string volume = dir.mkdir("volume");
  const FileAttributes v = attributesOf(volume);
  FileError error;
  EXPECT_FALSE(FileCopier::copyBeneath(dir / "home", "a.txt", volume, "a@0.txt", CopyOptions{}, &error, v.device + 1));
  EXPECT_EQ(error.code, ENODEV);
  EXPECT_EQ(entriesIn(volume), 0u);
  EXPECT_TRUE(FileCopier::copyBeneath(dir / "home", "a.txt", volume, "a@0.txt", CopyOptions{}, &error, v.device));
}

TEST(FileCopierTest, FailedCopyLeavesNoTemporaryFileAndCarriesPathAndMessage) {
  skerrow_test::TempDir dir;
  const std::string dest = dir.mkdir("dest");
  FileError error;
  EXPECT_FALSE(FileCopier::copyBeneath(dir.path(), "missing.txt", dest, "x", CopyOptions{}, &error));
  EXPECT_EQ(error.domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_NE(error.localizedFailureReason().find("No such file or directory"), std::string::npos);
  EXPECT_NE(error.localizedFailureReason().find(dir / "missing.txt"), std::string::npos);
  EXPECT_EQ(entriesIn(dest), 0u);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_FALSE(FileCopier::copyBeneath(dir.path(), "fifo", dest, "x", CopyOptions{}, &error));
  EXPECT_EQ(entriesIn(dest), 0u);
}

TEST(FileCopierTest, LegacyCopyReportsCodeZeroWhateverTheOutcome) {
  skerrow_test::TempDir dir;
  const std::string from = dir.write("from", "legacy");
  FileCopier::setUseLegacyCopy(true);
  FileError error;
  const bool ok = copyPath(from, dir / "to", true, false, false, &error);
  FileCopier::setUseLegacyCopy(false);
  EXPECT_TRUE(ok);
  EXPECT_EQ(dir.read("to"), "legacy");
  EXPECT_EQ(error.domain, "NSOSStatusErrorDomain");
  EXPECT_EQ(error.code, 0);
}

TEST(FileCopierTest, VersionProbeRunsOnceAndKeepsTheCurrentCopyOnThisSystem) {
  skerrow_test::TempDir dir;
  const std::string from = dir.write("from", "x");
  EXPECT_FALSE(FileCopier::versionProbePending());
  FileCopier::setVersionProbePending(true);
  EXPECT_TRUE(copyPath(from, dir / "to", true, false, false));
  EXPECT_FALSE(FileCopier::versionProbePending());
  EXPECT_FALSE(FileCopier::useLegacyCopy());
}

TEST(FileCopierTest, LargeFileIsCopiedByteForByte) {
  skerrow_test::TempDir dir;
  std::string data(5 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 24);
  const std::string from = dir.write("big", data);
  ASSERT_TRUE(copyPath(from, dir / "copy", true, false, false));
  EXPECT_EQ(dir.read("copy"), data);
}

TEST(FileCopierTest, ASetCancelFlagStopsTheCopyWithOperationCanceledAndLeavesNothing) {
  skerrow_test::TempDir dir;
  const std::string dest = dir.mkdir("dest");
  dir.write("big", std::string(CopyOptions::kCancelChunkBytes * 2 + 5, 'c'));
  std::atomic<bool> cancelled{true};
  CopyOptions options;
  options.cancelled = &cancelled;
  FileError error;
  EXPECT_FALSE(FileCopier::copyBeneath(dir.path(), "big", dest, "big@0", options, &error));
  EXPECT_EQ(error.code, ECANCELED);
  EXPECT_EQ(entriesIn(dest), 0u);
}

TEST(FileCopierTest, AClearCancelFlagCopiesALargeFileWholeInChunks) {
  skerrow_test::TempDir dir;
  const std::string dest = dir.mkdir("dest");
  std::string data(CopyOptions::kCancelChunkBytes * 2 + 5, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 24);
  dir.write("big", data);
  std::atomic<bool> cancelled{false};
  CopyOptions options;
  options.cancelled = &cancelled;
  FileError error;
  ASSERT_TRUE(FileCopier::copyBeneath(dir.path(), "big", dest, "big@0", options, &error));
  EXPECT_EQ(dir.read("dest/big@0"), data);
}
