// Copies onto real file systems: a loop-mounted ext4 image, and exFAT and
// FAT images served by FUSE.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "Engine/files/FSDestinationTraversal.h"
#include "Engine/files/FSSourceTraversal.h"
#include "Engine/files/QSBlackList.h"
#include "Engine/files/QSDestinationTraits.h"
#include "Engine/records/QSVersionName.h"
#include "platform/FileCopier.h"
#include "platform/FileManager.h"
#include "platform/UnicodeText.h"
#include "tests/support/Eventually.h"
#include "tests/support/FSTraversalTestSupport.h"
#include "tests/support/FileSystemImage.h"
#include "tests/support/TempDir.h"

using platform::CopyOptions;
using platform::FileAttributes;
using platform::FileCopier;
using platform::FileError;
using platform::FileManager;
using skerrow_test::FileSystemImage;

namespace {

constexpr uint64_t kMiB = 1024 * 1024;

#define SKIP_IF_UNAVAILABLE(kind)                                                   \
  if (auto reason = FileSystemImage::unavailableReason(kind)) GTEST_SKIP() << *reason

// A small home folder with the kinds of items a copy must keep.
struct SourceHome {
  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  SourceHome(bool withLinks, bool withNonAsciiNames = true) {
    dir.write("ann/notes.txt", "notes");
    dir.write("ann/empty", "");
    dir.write("ann/Documents/report.txt", std::string(100000, 'r'));
    dir.write("ann/Documents/Projects/plan.odt", "plan");
    dir.write("ann/Pictures/Holiday 2023/beach.jpg", std::string(300000, 'b'));
    dir.write(withNonAsciiNames ? "ann/Music/été.mp3" : "ann/Music/ete.mp3", "song");
    ::chmod((home + "/notes.txt").c_str(), 0600);
    ::chmod((home + "/Documents/report.txt").c_str(), 0640);
    ::chown((home + "/Documents/report.txt").c_str(), 65534, 65534);
    ::setxattr((home + "/notes.txt").c_str(), "user.colour", "red", 3, 0);
    if (withLinks) ::symlink("Documents/report.txt", (home + "/report-link").c_str());
    int i = 0;
    for (const char* f : {"notes.txt", "empty", "Documents/report.txt", "Documents/Projects/plan.odt",
                          "Pictures/Holiday 2023/beach.jpg", withNonAsciiNames ? "Music/été.mp3" : "Music/ete.mp3"}) {
      const platform::FileTime t{1600000000 + 1000 * i, static_cast<uint32_t>(123456789 + i)};
      FileManager::setTimes(home + "/" + f, &t, &t, false);
      ++i;
    }
  }
};

// Every file and link below the home, as paths relative to it, with its attributes.
std::map<std::string, FileAttributes> sourceItems(const std::string& home) {
  struct Collect : skerrow_test::NoopFSVisitor {
    std::string home;
    std::map<std::string, FileAttributes> items;
    bool startVisitAtPath_attributes(const std::string& p, const FileAttributes& a) override {
      if (!a.isDirectory()) items[p.substr(home.size() + 1)] = a;
      return true;
    }
  } collect;
  collect.home = home;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(home, nullptr, collect);
  return collect.items;
}

std::string versionedRelative(const std::string& relative, uint64_t version) {
  const auto slash = relative.find_last_of('/');
  if (slash == std::string::npos) return QSVersionName(relative, version);
  return relative.substr(0, slash + 1) + QSVersionName(relative.substr(slash + 1), version);
}

// Copies every item into `backup` as version 0; answers how many copies failed.
int backUp(const std::string& home, const std::map<std::string, FileAttributes>& items, const std::string& volume,
           const std::string& backupRelative, uint64_t device, std::vector<std::string>* failures) {
  int failed = 0;
  CopyOptions options;
  for (const auto& [relative, attributes] : items) {
    const auto slash = relative.find_last_of('/');
    if (slash != std::string::npos)
      FileManager::insureDirectoryAtPath(volume + "/" + backupRelative + "/" + relative.substr(0, slash));
    FileError error;
    if (!FileCopier::copyBeneath(home, relative, volume, backupRelative + "/" + versionedRelative(relative, 0), options,
                                 &error, device)) {
      ++failed;
      failures->push_back(relative + ": " + error.localizedFailureReason());
    }
  }
  return failed;
}

// The newest stored version of each file in the backup, keyed by lower-cased relative path.
std::map<std::string, QSFSFileAttributes> storedVersions(const std::string& backup) {
  struct Collect : skerrow_test::NoopFSVisitor {
    std::string backup;
    std::map<std::string, QSFSFileAttributes> latest;
    void startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) override {
      const auto sorted = QSSortedVersions(versions);
      latest[platform::lowercase(path.substr(backup.size() + 1))] = sorted->front()->attributes();
    }
  } collect;
  collect.backup = backup;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, collect);
  return collect.latest;
}

// The files of the home that the unchanged test would copy again.
std::vector<std::string> stillToCopy(const std::map<std::string, FileAttributes>& items,
                                     const std::map<std::string, QSFSFileAttributes>& stored,
                                     const QSDestinationTraits& traits) {
  std::vector<std::string> out;
  for (const auto& [relative, attributes] : items) {
    auto it = stored.find(platform::lowercase(relative));
    if (it == stored.end() || !QSIsUnchangedCopy(QSFSFileAttributes::fromFileAttributes(attributes), it->second, traits))
      out.push_back(relative);
  }
  return out;
}

void copyTreeAndFindNothingToCopyAgain(FileSystemImage::Kind kind) {
  const bool links = kind == FileSystemImage::Kind::Ext4;  // FAT and exFAT hold no symbolic links
  // The FUSE FAT driver (fusefat) takes ASCII names only: it refuses to create "été.mp3" at all.
  SourceHome source(links, kind != FileSystemImage::Kind::Vfat);
  FileSystemImage image(kind, 64 * kMiB);
  const std::string backupRelative = "qs skerrow.skstor/U";
  ASSERT_TRUE(FileManager::insureDirectoryAtPath(image.mountPoint() + "/" + backupRelative));
  const auto items = sourceItems(source.home);
  ASSERT_EQ(items.size(), links ? 7u : 6u);
  std::vector<std::string> failures;
  EXPECT_EQ(backUp(source.home, items, image.mountPoint(), backupRelative, image.device(), &failures), 0)
      << ::testing::PrintToString(failures);

  const std::string backup = image.mountPoint() + "/" + backupRelative;
  const auto traits = QSDestinationTraits::probe(backup);
  const auto stored = storedVersions(backup);
  EXPECT_EQ(stored.size(), items.size());
  EXPECT_TRUE(stillToCopy(items, stored, traits).empty()) << ::testing::PrintToString(stillToCopy(items, stored, traits));
  // The data arrived.
  std::ifstream in(backup + "/Pictures/Holiday 2023/beach@0.jpg", std::ios::binary);
  std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(data, std::string(300000, 'b'));
  // A changed file is found again.
  auto changed = items;
  changed["notes.txt"].size += 1;
  EXPECT_EQ(stillToCopy(changed, stored, traits), std::vector<std::string>{"notes.txt"});
}

}  // namespace

TEST(FileCopierTest, CopyToExt4KeepsModeOwnerTimesAttributesAndLinks) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::Ext4);
  SourceHome source(true);
  FileSystemImage image(FileSystemImage::Kind::Ext4, 64 * kMiB);
  EXPECT_EQ(image.fsType(), "ext4");
  const auto items = sourceItems(source.home);
  std::vector<std::string> failures;
  ASSERT_EQ(backUp(source.home, items, image.mountPoint(), "B", image.device(), &failures), 0)
      << ::testing::PrintToString(failures);
  for (const auto& [relative, a] : items) {
    FileAttributes b;
    ASSERT_TRUE(FileManager::attributesAtPath(image.mountPoint() + "/B/" + versionedRelative(relative, 0), &b, true))
        << relative;
    EXPECT_EQ(b.type, a.type) << relative;
    EXPECT_EQ(b.mode, a.mode) << relative;
    EXPECT_EQ(b.uid, a.uid) << relative;
    EXPECT_EQ(b.gid, a.gid) << relative;
    EXPECT_EQ(b.size, a.size) << relative;
    EXPECT_EQ(b.modificationTime, a.modificationTime) << relative;
    if (!a.isSymbolicLink()) {
      EXPECT_EQ(b.creationSource, FileAttributes::CreationSource::StoredAttribute) << relative;
      EXPECT_EQ(b.creationTime, a.creationTime) << relative;
    }
  }
  char colour[8] = {};
  EXPECT_EQ(::getxattr((image.mountPoint() + "/B/notes@0.txt").c_str(), "user.colour", colour, sizeof colour), 3);
  EXPECT_STREQ(colour, "red");
  EXPECT_EQ(std::filesystem::read_symlink(image.mountPoint() + "/B/report-link@0"), "Documents/report.txt");
}

TEST(FileCopierTest, SecondBackupOnExt4FindsNothingToCopy) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::Ext4);
  copyTreeAndFindNothingToCopyAgain(FileSystemImage::Kind::Ext4);
}

TEST(FileCopierTest, SecondBackupOnExFatFindsNothingToCopy) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::ExFat);
  copyTreeAndFindNothingToCopyAgain(FileSystemImage::Kind::ExFat);
}

TEST(FileCopierTest, SecondBackupOnFatFindsNothingToCopy) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::Vfat);
  copyTreeAndFindNothingToCopyAgain(FileSystemImage::Kind::Vfat);
}

TEST(FileCopierTest, FullDiskFailsCleanlyWithNoFileUnderAFinalName) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::Ext4);
  skerrow_test::TempDir source;
  std::string data(8 * kMiB, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 13);
  source.write("big.bin", data);
  FileSystemImage image(FileSystemImage::Kind::Ext4, 4 * kMiB);
  ASSERT_TRUE(FileManager::insureDirectoryAtPath(image.mountPoint() + "/B"));
  FileError error;
  EXPECT_FALSE(FileCopier::copyBeneath(source.path(), "big.bin", image.mountPoint(), "B/big@0.bin", CopyOptions{},
                                       &error, image.device()));
  EXPECT_EQ(error.code, ENOSPC) << error.localizedFailureReason();
  EXPECT_NE(error.localizedFailureReason().find("No space left on device"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_empty(image.mountPoint() + "/B"));  // neither the copy nor its temporary file
  // The volume is usable again afterwards.
  source.write("small.txt", "s");
  EXPECT_TRUE(FileCopier::copyBeneath(source.path(), "small.txt", image.mountPoint(), "B/small@0.txt", CopyOptions{},
                                      &error, image.device()));
}

TEST(FileCopierTest, LazyUnmountDuringCopiesWritesNothingOnTheRootFileSystem) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::Ext4);
  skerrow_test::TempDir source;
  for (int i = 0; i < 400; ++i) source.write("f" + std::to_string(i), std::string(64 * 1024, 'x'));
  FileSystemImage image(FileSystemImage::Kind::Ext4, 128 * kMiB);
  const std::string mountPoint = image.mountPoint();
  const uint64_t device = image.device();
  std::atomic<int> copied{0}, failed{0};
  std::thread copier([&] {
    CopyOptions options;
    for (int i = 0; i < 400; ++i) {
      FileError error;
      if (FileCopier::copyBeneath(source.path(), "f" + std::to_string(i), mountPoint, "f" + std::to_string(i) + "@0",
                                  options, &error, device))
        ++copied;
      else
        ++failed;
    }
  });
  ASSERT_TRUE(skerrow_test::eventually([&] { return copied.load() >= 20; }));
  image.lazyUnmount();
  copier.join();
  EXPECT_GT(failed.load(), 0);
  EXPECT_EQ(copied.load() + failed.load(), 400);
  // The mount point is now a plain folder of the root file system: nothing was written into it.
  struct stat st;
  ASSERT_EQ(::stat(mountPoint.c_str(), &st), 0);
  EXPECT_NE(st.st_dev, device);
  EXPECT_TRUE(std::filesystem::is_empty(mountPoint));
}
