// The engine stopped by its service manager (SIGTERM) in the middle of a
// backup: the copy under way stops at its next chunk, its temporary file is
// removed, the database is saved and the process exits with status 0 within
// the two seconds a service manager waits for it.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/BackupScenario.h"

using namespace std::chrono_literals;
using skerrow_test::BackupScenario;

namespace fs = std::filesystem;

namespace {

// The size of the largest copy in progress (a ".skerrow-" temporary) below `folder`, 0 when none.
uintmax_t largestTemporaryBelow(const std::string& folder) {
  uintmax_t largest = 0;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (error) break;
    if (it->path().filename().string().rfind(".skerrow-", 0) != 0) continue;
    largest = std::max(largest, it->file_size(error));
  }
  return largest;
}

// Writes `bytes` of real data (not a sparse file) to `path`.
void writeFile(const std::string& path, uintmax_t bytes) {
  std::ofstream out(path, std::ios::binary);
  const std::string block(1 << 20, 'S');
  for (uintmax_t done = 0; done < bytes; done += block.size()) out.write(block.data(), block.size());
}

}  // namespace

TEST(EngineShutdownTest, SigtermDuringTheCopyOfALargeFileEndsTheEngineWithinTwoSecondsSavedAndWithoutATornVersion) {
  if (auto reason = BackupScenario::unavailableReason()) GTEST_SKIP() << *reason;
  BackupScenario scenario({"-n", "40", "-b", "2M", "-s", "11"}, 1536ull << 20, 2);
  const std::string big = scenario.home + "/Documents/big.bin";
  fs::create_directories(scenario.home + "/Documents");
  writeFile(big, 1ull << 30);
  ASSERT_EQ(::chown(big.c_str(), 1500, 1500), 0);
  auto& engine = scenario.start();

  // SIGTERM once the large file's copy is well under way.
  bool copying = false;
  for (int i = 0; i < 6000 && !copying; ++i) {
    copying = largestTemporaryBelow(scenario.backup) > (32u << 20);
    if (!copying) std::this_thread::sleep_for(5ms);
  }
  ASSERT_TRUE(copying) << engine.logText();
  ASSERT_EQ(scenario.countContaining(BackupScenario::kSaved), 0u) << "the backup ended before the signal";
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(::kill(engine.pid(), SIGTERM), 0);
  const auto status = engine.waitForExit(10s);
  const auto took = std::chrono::steady_clock::now() - start;
  ASSERT_TRUE(status.has_value()) << engine.logText();
  EXPECT_EQ(*status, 0) << engine.logText();
  EXPECT_LT(took, 2s) << "exit took " << std::chrono::duration_cast<std::chrono::milliseconds>(took).count() << " ms";

  // The database was saved on the way out, after the signal.
  const auto lines = engine.logLines();
  const auto signalled = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("Stopped by signal 15") != std::string::npos;
  });
  ASSERT_NE(signalled, lines.end()) << engine.logText();
  EXPECT_NE(std::find_if(signalled, lines.end(),
                         [](const std::string& line) { return line.find(BackupScenario::kSaved) != std::string::npos; }),
            lines.end())
      << engine.logText();
  EXPECT_EQ(engine.countLogLines("exiting..."), 1u);

  // No torn version of the large file and no temporary left behind.
  for (const auto& [stored, file] : skerrow_test::regularFilesBelow(scenario.backup)) {
    EXPECT_NE(fs::path(stored).filename().string().rfind(".skerrow-", 0), 0u) << "temporary left: " << stored;
    if (fs::path(stored).filename().string().rfind("big@", 0) == 0) {
      EXPECT_EQ(static_cast<uintmax_t>(file.size), 1ull << 30) << "torn version " << stored;
    }
  }
}
