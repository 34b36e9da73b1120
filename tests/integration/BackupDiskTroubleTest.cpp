// Backup disks that go wrong under a running backup: pulled out in the
// middle of the copy, and full.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/BackupScenario.h"

using namespace std::chrono_literals;
using skerrow_test::BackupScenario;

namespace fs = std::filesystem;

TEST(BackupDiskTroubleTest, DiskUnmountedDuringABackupGetsNothingWrittenUnderItsEmptyMountPointAndTheJobEnds) {
  if (auto reason = BackupScenario::unavailableReason()) GTEST_SKIP() << *reason;
  // Big enough that the copy takes a while: a few files of 50-200 MiB among many small ones.
  BackupScenario scenario({"-n", "3000", "-b", "420M", "-s", "3"}, 1ull << 30, 2);
  const std::string mountPoint = scenario.disk->mountPoint();
  auto& engine = scenario.start();

  // Unmount as soon as the first copies land.
  bool copying = false;
  for (int i = 0; i < 4000 && !copying; ++i) {
    std::error_code error;
    copying = fs::exists(scenario.backup + "/Documents", error) || fs::exists(scenario.backup + "/Pictures", error);
    if (!copying) std::this_thread::sleep_for(5ms);
  }
  ASSERT_TRUE(copying) << engine.logText();
  scenario.disk->lazyUnmount();
  ASSERT_EQ(scenario.countContaining(BackupScenario::kSaved), 0u) << "the backup ended before the disk went";
  const size_t jobs = scenario.countContaining("+++ housekeeping");
  ASSERT_TRUE(engine.waitForLogLine("Disk at " + mountPoint + " disappeared", 5s)) << engine.logText();

  // Two more ticks: the job has ended, no new job starts for the missing disk, nothing lands on the empty folder.
  std::this_thread::sleep_for(22s);
  EXPECT_TRUE(engine.isRunning());
  EXPECT_TRUE(fs::is_empty(mountPoint)) << "something was written under the empty mount point";
  EXPECT_EQ(scenario.countContaining("+++ housekeeping"), jobs);
  EXPECT_EQ(scenario.countContaining(BackupScenario::kSaved), 0u);
  EXPECT_GE(scenario.countContaining("Starting UNSCHEDULED backup for"), 2u);  // the timer still asks, and nothing comes of it
}

TEST(BackupDiskTroubleTest, FullDiskLeavesNoHalfWrittenVersionAndOlderVersionsUntouched) {
  if (auto reason = BackupScenario::unavailableReason()) GTEST_SKIP() << *reason;
  BackupScenario scenario({"-n", "300", "-b", "24M", "-s", "5"}, 64ull << 20, 3);
  auto& engine = scenario.start();
  ASSERT_TRUE(scenario.waitForCount(BackupScenario::kSaved, 1, 60s)) << engine.logText();
  const auto firstPass = skerrow_test::regularFilesBelow(scenario.backup);

  // Every admitted file grows by 256 KiB: far more new versions than the disk can hold.
  size_t grown = 0;
  for (const auto& [relative, file] : skerrow_test::regularFilesBelow(scenario.home)) {
    if (!skerrow_test::admittedByBlackList(relative)) continue;
    std::ofstream(scenario.home + "/" + relative, std::ios::app) << std::string(256 << 10, 'x');
    ++grown;
  }
  ASSERT_GT(grown, 200u);
  // The next pass starts, runs into the full disk, and ends (stopped after too many failures in a
  // row, or finished); the pass after it starts.
  const size_t jobs = scenario.countContaining("+++ housekeeping");
  ASSERT_TRUE(scenario.waitForCount("+++ housekeeping", jobs + 2, 120s)) << engine.logText();
  engine.stop(30s);

  size_t newVersions = 0;
  for (const auto& [stored, file] : skerrow_test::regularFilesBelow(scenario.backup)) {
    if (firstPass.count(stored)) {
      // Older versions are untouched: same file, same size.
      EXPECT_EQ(file.inode, firstPass.at(stored).inode) << stored;
      EXPECT_EQ(file.size, firstPass.at(stored).size) << stored;
      continue;
    }
    const std::string name = fs::path(stored).filename().string();
    if (name.rfind(".skerrow-", 0) == 0) continue;  // a copy's temporary name, never a version
    ++newVersions;
    // A new version is whole: it has the grown file's size.
    const std::string versionSuffix = "@1";
    const auto at = stored.rfind(versionSuffix);
    ASSERT_NE(at, std::string::npos) << "unexpected file " << stored;
    std::string source = stored;
    source.erase(at, versionSuffix.size());
    EXPECT_EQ(static_cast<uintmax_t>(file.size), fs::file_size(scenario.home + "/" + source)) << stored;
  }
  for (const auto& [stored, file] : firstPass) EXPECT_TRUE(fs::exists(scenario.backup + "/" + stored)) << stored;
  EXPECT_LT(newVersions, grown) << "the disk was not full after all";
  std::printf("[ full disk ] %zu files grown, %zu new versions stored whole\n", grown, newVersions);
}
