// A backup end to end with the real engine: a fake user with a synthetic
// home folder, a loop-mounted ext4 backup disk holding that user's backup
// folder, and a database that names the backup as managed and scheduled.
// With "-noSchedule" the engine starts the backup at every tick of its
// 10-second timer.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "Engine/QSBackupAttributes.h"
#include "Engine/QSBackupEntry.h"
#include "Engine/QSBlackList.h"
#include "Engine/QSCategoryIdentifiers.h"
#include "Engine/QSVersionName.h"
#include "platform/PropertyList.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FileSystemImage.h"

using namespace std::chrono_literals;
using skerrow_test::EngineFixture;
using skerrow_test::FileSystemImage;

namespace fs = std::filesystem;

namespace {

constexpr const char* kBackupUID = "5E4B0C1A-0000-4000-8000-00000000A11E";
const char* const kSaved = "Server did save to permanent store: 1";

struct StoredFile {
  ino_t inode;
  off_t size;
};

// Every regular file below `folder`, by path relative to it.
std::map<std::string, StoredFile> filesBelow(const std::string& folder) {
  std::map<std::string, StoredFile> files;
  for (auto it = fs::recursive_directory_iterator(folder); it != fs::recursive_directory_iterator(); ++it) {
    std::error_code error;
    if (it->is_symlink(error) || !it->is_regular_file(error)) continue;
    struct stat st {};
    if (::lstat(it->path().c_str(), &st) != 0) continue;
    files[fs::relative(it->path(), folder).string()] = {st.st_ino, st.st_size};
  }
  return files;
}

// The stored name of a home file: its versioned name at `index` in the same folder.
std::string versioned(const std::string& relative, uint64_t index) {
  const fs::path p(relative);
  const std::string name = QSVersionName(p.filename().string(), index);
  return p.has_parent_path() ? (p.parent_path() / name).string() : name;
}

bool admitted(const std::string& relative) {
  const fs::path p(relative);
  for (auto part = p.begin(); part != p.end(); ++part)
    if (QSBlackList::isFilenameBlacklisted(part->string())) return false;
  fs::path prefix;
  for (const auto& part : p) {
    prefix /= part;
    if (QSBlackList::isPathSuffixBlacklisted("/" + prefix.string())) return false;
  }
  return true;
}

}  // namespace

TEST(BackupPipelineTest, ScheduledBackupStoresVersionedCopiesSkipsUnchangedFilesAndKeepsTheVersionDepth) {
  if (auto reason = EngineFixture::unavailableReason()) GTEST_SKIP() << *reason;
  if (auto reason = FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4)) GTEST_SKIP() << *reason;
  QSBlackList::initialize();

  EngineFixture f;
  const auto& ann = f.users().addUser("ann", 1500, 1500, "Ann Example");
  fs::remove(ann.home);
  auto made = skerrow_test::runCommand({SKERROW_MAKE_HOME, "-q", "-n", "400", "-b", "6M", "-s", "7", ann.home});
  ASSERT_EQ(made.exitCode, 0) << made.output;
  ASSERT_EQ(skerrow_test::runCommand({"chown", "-R", "-h", "1500:1500", ann.home}).exitCode, 0);

  FileSystemImage disk(FileSystemImage::Kind::Ext4, 96 << 20, skerrow_test::FileSystemImageOptions{.label = "Backup"});
  auto entry = QSBackupEntry::initWithUID(kBackupUID);
  entry->setShortUserName("ann");
  entry->setLongUserName("Ann Example");
  entry->setUserHome(ann.home);
  for (const char* category : kAllCategories) entry->categoryWithIdentifier(category)->setScheduled(true);
  entry->setVersionDepth(2);
  entry->setPeriod(3600);
  const std::string backup = disk.mountPoint() + "/" + kBackupDestinationDirectoryName + "/" + kBackupUID;
  fs::create_directories(backup);
  ASSERT_TRUE(platform::PropertyList::writeFile(backup + "/" + kMetadataFileName,
                                                platform::Value(entry->metadataForBackupDir())));
  entry->setPersistent(true);
  entry->setScheduled(true);
  const std::string store = f.storeRoot() + "/Library/Application Support/Vornhalden/";
  fs::create_directories(store);
  platform::Dictionary db;
  platform::Array archives;
  archives.push_back(platform::Value(entry->archive()));
  db.set("managed-backups", platform::Value(std::move(archives)));
  db.set("managed-users", platform::Value(platform::Dictionary()));
  ASSERT_TRUE(platform::PropertyList::writeFile(store + kBackupDatabaseFile, platform::Value(db)));

  const auto started = std::chrono::system_clock::now();
  auto& engine = f.startEngine({"-noSchedule", "-noRealtime"});
  // First pass: within one tick (10 s) plus the copy.
  ASSERT_TRUE(engine.waitForLogLine(kSaved, 40s)) << engine.logText();
  EXPECT_TRUE(engine.waitForLogLine(std::string("created second stage environment for ") + kBackupUID + "(ann)", 1s));

  // Every admitted regular file of the home stands as name@0 with the source's size, mode, owner and times.
  size_t checked = 0;
  for (const auto& [relative, source] : filesBelow(ann.home)) {
    if (!admitted(relative)) continue;
    const std::string copy = backup + "/" + versioned(relative, 0);
    struct stat s {}, c {};
    ASSERT_EQ(::lstat((ann.home + "/" + relative).c_str(), &s), 0);
    ASSERT_EQ(::lstat(copy.c_str(), &c), 0) << "missing copy of " << relative;
    EXPECT_EQ(c.st_size, s.st_size) << relative;
    EXPECT_EQ(c.st_mode, s.st_mode) << relative;
    EXPECT_EQ(c.st_uid, s.st_uid) << relative;
    EXPECT_EQ(c.st_gid, s.st_gid) << relative;
    EXPECT_EQ(c.st_mtim.tv_sec, s.st_mtim.tv_sec) << relative;
    EXPECT_EQ(c.st_mtim.tv_nsec, s.st_mtim.tv_nsec) << relative;
    ++checked;
  }
  EXPECT_GT(checked, 300u);
  const auto firstPass = filesBelow(backup);

  // Second pass: nothing is copied (every stored file keeps its inode; nothing new appears).
  ASSERT_TRUE(engine.waitForLogLine(kSaved, 30s));
  auto waitForSaves = [&](size_t count) {
    for (int i = 0; i < 400 && engine.countLogLines(kSaved) < count; ++i) std::this_thread::sleep_for(100ms);
    return engine.countLogLines(kSaved) >= count;
  };
  ASSERT_TRUE(waitForSaves(2)) << engine.logText();
  const auto secondPass = filesBelow(backup);
  ASSERT_EQ(secondPass.size(), firstPass.size());
  for (const auto& [path, stored] : firstPass) EXPECT_EQ(secondPass.at(path).inode, stored.inode) << path;

  // Four changes of one file: @1 after the first, and with depth 2 only @2, @3, @4 at the end.
  std::string changed;
  for (const auto& [relative, source] : filesBelow(ann.home))
    if (admitted(relative) && relative.rfind("Documents/", 0) == 0) changed = relative;
  ASSERT_FALSE(changed.empty());
  size_t saves = engine.countLogLines(kSaved);
  for (int change = 1; change <= 4; ++change) {
    // Wait for a pass to end before changing, so that each change lands in a pass of its own.
    std::ofstream(ann.home + "/" + changed, std::ios::app) << "change " << change << "\n";
    ASSERT_TRUE(waitForSaves(saves + 2)) << engine.logText();
    saves = engine.countLogLines(kSaved);
    if (change == 1) {
      const auto now = filesBelow(backup);
      EXPECT_EQ(now.size(), firstPass.size() + 1);
      ASSERT_TRUE(now.count(versioned(changed, 1))) << changed;
      for (const auto& [path, stored] : firstPass) EXPECT_EQ(now.at(path).inode, stored.inode) << path;
    }
  }
  for (uint64_t gone : {0, 1}) EXPECT_FALSE(fs::exists(backup + "/" + versioned(changed, gone))) << gone;
  for (uint64_t kept : {2, 3, 4}) EXPECT_TRUE(fs::exists(backup + "/" + versioned(changed, kept))) << kept;
  EXPECT_EQ(fs::file_size(backup + "/" + versioned(changed, 4)), fs::file_size(ann.home + "/" + changed));

  // The completion date is in the database.
  engine.stop(10s);
  const auto saved = platform::PropertyList::readFile(store + kBackupDatabaseFile);
  ASSERT_TRUE(saved && saved->asDictionary());
  const auto* backups = saved->asDictionary()->find("managed-backups");
  ASSERT_TRUE(backups && backups->asArray() && backups->asArray()->size() == 1);
  const auto reloaded = QSBackupEntry::initWithArchive(*backups->asArray()->at(0).asDictionary());
  const double startedAt = std::chrono::duration<double>(started.time_since_epoch()).count();
  EXPECT_GT(reloaded->completionDate().timeIntervalSince1970(), startedAt);
}
