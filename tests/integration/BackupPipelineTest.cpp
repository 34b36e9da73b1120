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

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSBackupEntry.h"
#include "platform/PropertyList.h"
#include "tests/support/BackupScenario.h"

using namespace std::chrono_literals;

namespace fs = std::filesystem;

using skerrow_test::BackupScenario;
using skerrow_test::admittedByBlackList;
using skerrow_test::regularFilesBelow;
using skerrow_test::versionedPath;

TEST(BackupPipelineTest, ScheduledBackupStoresVersionedCopiesSkipsUnchangedFilesAndKeepsTheVersionDepth) {
  if (auto reason = BackupScenario::unavailableReason()) GTEST_SKIP() << *reason;
  BackupScenario scenario({"-n", "400", "-b", "6M", "-s", "7"}, 96 << 20, 2);
  const std::string& backup = scenario.backup;
  const std::string& store = scenario.store;
  const std::string& home = scenario.home;
  const char* const kSaved = BackupScenario::kSaved;
  const std::string kBackupUID = BackupScenario::kUID;
  const auto started = std::chrono::system_clock::now();
  auto& engine = scenario.start();
  // First pass: within one tick (10 s) plus the copy.
  ASSERT_TRUE(engine.waitForLogLine(kSaved, 40s)) << engine.logText();
  EXPECT_TRUE(engine.waitForLogLine("created second stage environment for " + kBackupUID + "(ann)", 1s));

  // Every admitted regular file of the home stands as name@0 with the source's size, mode, owner and times.
  size_t checked = 0;
  for (const auto& [relative, source] : regularFilesBelow(home)) {
    if (!admittedByBlackList(relative)) continue;
    const std::string copy = backup + "/" + versionedPath(relative, 0);
    struct stat s {}, c {};
    ASSERT_EQ(::lstat((home + "/" + relative).c_str(), &s), 0);
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
  const auto firstPass = regularFilesBelow(backup);

  // Second pass: nothing is copied (every stored file keeps its inode; nothing new appears).
  ASSERT_TRUE(scenario.waitForCount(kSaved, 2, 40s)) << engine.logText();
  const auto secondPass = regularFilesBelow(backup);
  ASSERT_EQ(secondPass.size(), firstPass.size());
  for (const auto& [path, stored] : firstPass) EXPECT_EQ(secondPass.at(path).inode, stored.inode) << path;

  // Four changes of one file: @1 after the first, and with depth 2 only @2, @3, @4 at the end.
  std::string changed;
  for (const auto& [relative, source] : regularFilesBelow(home))
    if (admittedByBlackList(relative) && relative.rfind("Documents/", 0) == 0) changed = relative;
  ASSERT_FALSE(changed.empty());
  size_t saves = engine.countLogLines(kSaved);
  for (int change = 1; change <= 4; ++change) {
    // Wait for a pass to end before changing, so that each change lands in a pass of its own.
    std::ofstream(home + "/" + changed, std::ios::app) << "change " << change << "\n";
    ASSERT_TRUE(scenario.waitForCount(kSaved, saves + 2, 40s)) << engine.logText();
    saves = engine.countLogLines(kSaved);
    if (change == 1) {
      const auto now = regularFilesBelow(backup);
      EXPECT_EQ(now.size(), firstPass.size() + 1);
      ASSERT_TRUE(now.count(versionedPath(changed, 1))) << changed;
      for (const auto& [path, stored] : firstPass) EXPECT_EQ(now.at(path).inode, stored.inode) << path;
    }
  }
  for (uint64_t gone : {0, 1}) EXPECT_FALSE(fs::exists(backup + "/" + versionedPath(changed, gone))) << gone;
  for (uint64_t kept : {2, 3, 4}) EXPECT_TRUE(fs::exists(backup + "/" + versionedPath(changed, kept))) << kept;
  EXPECT_EQ(fs::file_size(backup + "/" + versionedPath(changed, 4)), fs::file_size(home + "/" + changed));

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
