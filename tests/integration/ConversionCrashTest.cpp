// The conversion never loses a file, however it is interrupted: the engine
// killed with SIGKILL at random moments and at every rename of the driver,
// or the disk pulled out (a lazy unmount) at random moments and plugged in
// again.  After each interruption every legacy version must be on the disk
// exactly once (under its new name or still in the legacy tree) and every
// information list and state file must read; once the engine runs again the
// disk must end converted, every version at its new name with its date, and
// the new backups adopted.
//
// Rounds come from the environment (short by default, for CI):
//   SKERROW_CONVERSION_KILL_ROUNDS   kills at random moments (default 6)
//   SKERROW_CONVERSION_YANK_ROUNDS   pulled disks at random moments (default 3)
//   SKERROW_CONVERSION_CRASH_SEED    the random seed (default fixed)
// scripts/conversion-crash.sh runs the full programme (200 and 50).
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/records/QSBackupEntry.h"
#include "platform/PropertyList.h"
#include "tests/support/BackupScenario.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"
#include "tests/support/LegacyLayout.h"

namespace {

using namespace std::chrono_literals;
using namespace skerrow_test;
using Clock = std::chrono::steady_clock;

uint64_t environmentNumber(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text) return fallback;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 0);
  return end && *end == '\0' ? value : fallback;
}

class ConversionCrash {
 public:
  static std::optional<std::string> unavailableReason() { return BackupScenario::unavailableReason(); }

  ConversionCrash()
      : ann(f.users().addUser("ann", 1500, 1500, "Ann Example")),
        bob(f.users().addUser("bob", 1501, 1501, "Bob Example")),
        disk(FileSystemImage::Kind::Ext4, 256ull << 20, FileSystemImageOptions{.label = "OldBackups"}),
        store(f.storeRoot() + "/Library/Application Support/Vornhalden/") {}

  // An untouched legacy layout on an otherwise empty disk, and an empty engine store.
  void freshLayout(uint64_t seed) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(disk.mountPoint()))
      if (entry.path().filename() != "lost+found") std::filesystem::remove_all(entry.path(), error);
    std::filesystem::remove_all(store, error);
    const std::string manifestPath = disk.folder() + "/manifest.tsv";
    const CommandResult made = makeLegacyLayout({"--user", "ann=" + ann.home, "--user", "bob=" + bob.home, "--files",
                                                 "120", "--max-versions", "5", "--seed", std::to_string(seed),
                                                 "--manifest", manifestPath, disk.mountPoint()});
    if (made.exitCode != 0) throw std::runtime_error(made.output);
    manifest = LegacyManifest::read(manifestPath);
  }

  DaemonProcessOptions options() const {
    DaemonProcessOptions o;
    o.environment = f.clientEnvironment();
    o.environment["SKERROW_ROOT"] = f.storeRoot();
    o.environment["SKERROW_LOG_STDERR"] = "1";
    return o;
  }
  std::unique_ptr<DaemonProcess> startEngine() {
    auto engine = std::make_unique<DaemonProcess>(SKERROWD_PATH, std::vector<std::string>{"-noSchedule", "-noRealtime"},
                                                  options());
    engine->waitForLogLine("sconnection configured...", 20s);
    return engine;
  }
  static void kill(DaemonProcess& process) {
    ::kill(process.pid(), SIGKILL);
    process.waitForExit(10s);
  }

  // Whether the disk is converted and both new backups are adopted.
  bool converged(LegacyCheck* check = nullptr) const {
    const LegacyCheck seen = checkLegacyVersions(disk.mountPoint(), manifest);
    if (check) *check = seen;
    if (!seen.allConverted()) return false;
    std::set<std::string> uids;
    for (const auto& entry : std::filesystem::directory_iterator(disk.mountPoint() + "/qs skerrow.skstor"))
      if (entry.is_directory()) uids.insert(entry.path().filename().string());
    const auto saved = platform::PropertyList::readFile(store + kBackupDatabaseFile);
    const platform::Dictionary* root = saved ? saved->asDictionary() : nullptr;
    const platform::Value* backups = root ? root->find("managed-backups") : nullptr;
    if (!backups || !backups->asArray()) return false;
    std::set<std::string> adopted;
    for (const platform::Value& archive : *backups->asArray())
      if (const auto* fields = archive.asDictionary()) adopted.insert(QSBackupEntry::initWithArchive(*fields)->uid());
    return uids.size() == 2 && adopted == uids &&
           !std::filesystem::exists(disk.mountPoint() + "/qs skerrow.skstor/.vessaToQSConversionNewBackups");
  }

  // Starts the engine and waits until it has converted and adopted
  // everything.  A run interrupted after examination saved its state but
  // before the folder said so finds a state-2 folder with a state file: that
  // run renames it back and ends without converting (the deliberate
  // asymmetry of resumption), and the next start converts.  Answers how many
  // starts it took.
  size_t runToTheEnd(const std::string& round) {
    for (size_t start = 1; start <= kMostStarts; ++start) {
      auto engine = startEngine();
      LegacyCheck check;
      bool ended = false;
      const bool done = eventually(
          [&] {
            if (converged(&check)) return true;
            ended = engine->logText().find(kDidNotFinish) != std::string::npos;
            return ended;
          },
          90s);
      engine->stop(10s);
      if (done && !ended) return start;
      if (!done || start == kMostStarts) {
        ADD_FAILURE() << round << ", start " << start << ": " << check.summary() << "\n" << engine->logText();
        return start;
      }
    }
    return kMostStarts;
  }
  static constexpr size_t kMostStarts = 3;
  static constexpr const char* kDidNotFinish = "did not finish; it resumes at the next mount";

  // Whether the engine runs a conversion on the disk now.
  bool conversionRuns() const {
    const CommandResult answer = f.busctl({"call", "com.qsc.skerrow", "/com/qsc/skerrow",
                                           "com.qsc.skerrow.QSSkerrowServerProtocol", "conversionStateForMountPath", "s",
                                           disk.mountPoint()});
    return answer.exitCode != 0 || answer.output.rfind("as 0", 0) != 0;
  }

  // After an interruption: nothing lost or doubled, nothing half written.
  void expectNothingLost(const std::string& round) {
    const LegacyCheck check = checkLegacyVersions(disk.mountPoint(), manifest);
    EXPECT_TRUE(check.nothingLost()) << round << ": " << check.summary();
    ++totals.interruptions;
    totals.versions += check.versions;
    totals.lost += check.lost;
    totals.duplicated += check.duplicated;
    totals.misplaced += check.misplaced;
    totals.unreadableLists += check.unreadableLists;
  }

  // What the checks right after the interruptions of a test found, summed.
  struct Totals {
    size_t interruptions = 0;
    size_t versions = 0;
    size_t lost = 0;
    size_t duplicated = 0;
    size_t misplaced = 0;
    size_t unreadableLists = 0;
  };
  std::string totalsLine() const {
    return std::to_string(totals.interruptions) + " interruption(s), " + std::to_string(totals.versions) +
           " versions checked right after them: " + std::to_string(totals.lost) + " lost, " +
           std::to_string(totals.duplicated) + " duplicated, " + std::to_string(totals.misplaced) + " misplaced, " +
           std::to_string(totals.unreadableLists) + " half-written information lists or state files";
  }
  Totals totals;

  EngineFixture f;
  const TestUser& ann;
  const TestUser& bob;
  FileSystemImage disk;
  const std::string store;
  LegacyManifest manifest;
};

size_t countLines(const DaemonProcess& process, const std::string& text) {
  size_t n = 0;
  for (const auto& line : process.logLines()) n += line.find(text) != std::string::npos;
  return n;
}

#define SKIP_WITHOUT_CONVERSION_CRASH() \
  if (auto reason = ConversionCrash::unavailableReason()) GTEST_SKIP() << *reason

// How long a whole conversion takes the engine, from its connection being
// configured to the backups adopted (the window the random kills aim at).
std::chrono::microseconds calibrate(ConversionCrash& crash) {
  crash.freshLayout(1);
  auto engine = crash.startEngine();
  const auto started = Clock::now();
  EXPECT_TRUE(eventually([&] { return crash.converged(); }, 90s)) << engine->logText();
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started);
  engine->stop(10s);
  return took;
}

TEST(ConversionCrash, KilledAtRandomMomentsEveryRunEndsConvertedWithoutLosingAFile) {
  SKIP_WITHOUT_CONVERSION_CRASH();
  const uint64_t rounds = environmentNumber("SKERROW_CONVERSION_KILL_ROUNDS", 6);
  std::mt19937_64 random(environmentNumber("SKERROW_CONVERSION_CRASH_SEED", 0x5eed16));
  ConversionCrash crash;
  const auto window = calibrate(crash);
  std::map<size_t, size_t> starts;
  std::cout << "a whole conversion took " << window.count() << " us; killing within that window, " << rounds
            << " rounds" << std::endl;
  for (uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    crash.freshLayout(100 + round);
    auto engine = crash.startEngine();
    const auto delay = std::chrono::microseconds(random() % static_cast<uint64_t>(window.count() + 1));
    std::this_thread::sleep_for(delay);
    ConversionCrash::kill(*engine);
    const std::string name = "round " + std::to_string(round) + " (killed after " + std::to_string(delay.count()) + " us)";
    crash.expectNothingLost(name);
    ++starts[crash.runToTheEnd(name)];
  }
  for (const auto& [count, rounds] : starts)
    std::cout << rounds << " round(s) converted after " << count << " more start(s)" << std::endl;
  std::cout << crash.totalsLine() << std::endl;
}

TEST(ConversionCrash, KilledAtEveryRenameOfTheDriverEveryRunEndsConverted) {
  SKIP_WITHOUT_CONVERSION_CRASH();
  ConversionCrash crash;
  // A whole run's renames, counted by the conversion run by itself.
  crash.freshLayout(7);
  DaemonProcess counting(SKERROW_CONVERT_VOLUME, {crash.disk.mountPoint()}, crash.options());
  ASSERT_EQ(counting.waitForExit(60s).value_or(-1), 0) << counting.logText();
  const auto renames = counting.logText().find("RENAMES ");
  ASSERT_NE(renames, std::string::npos) << counting.logText();
  const uint64_t count = std::stoull(counting.logText().substr(renames + 8));
  EXPECT_GE(count, 8u) << "six state renames, the target's rename and the trash";
  for (uint64_t rename = 1; rename <= count && !HasFailure(); ++rename) {
    for (const bool after : {false, true}) {
      crash.freshLayout(200 + rename);
      std::vector<std::string> arguments = {"--kill-at-rename", std::to_string(rename)};
      if (after) arguments.push_back("--after");
      arguments.push_back(crash.disk.mountPoint());
      DaemonProcess run(SKERROW_CONVERT_VOLUME, arguments, crash.options());
      const std::string name = "rename " + std::to_string(rename) + (after ? " (after)" : " (before)");
      EXPECT_EQ(run.waitForExit(60s).value_or(-1), 128 + SIGKILL) << name << ": " << run.logText();
      crash.expectNothingLost(name);
      const size_t starts = crash.runToTheEnd(name);
      std::cout << name << ": converted after " << starts << " start(s) of the engine" << std::endl;
    }
  }
  std::cout << crash.totalsLine() << std::endl;
}

TEST(ConversionCrash, DiskPulledAtRandomMomentsAndPluggedInAgainEveryRunEndsConverted) {
  SKIP_WITHOUT_CONVERSION_CRASH();
  const uint64_t rounds = environmentNumber("SKERROW_CONVERSION_YANK_ROUNDS", 3);
  std::mt19937_64 random(environmentNumber("SKERROW_CONVERSION_CRASH_SEED", 0x5eed16) ^ 0x9a4c);
  ConversionCrash crash;
  const auto window = calibrate(crash);
  std::map<size_t, size_t> plugsNeeded;
  for (uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    crash.freshLayout(300 + round);
    auto engine = crash.startEngine();
    const auto delay = std::chrono::microseconds(random() % static_cast<uint64_t>(window.count() + 1));
    std::this_thread::sleep_for(delay);
    crash.disk.lazyUnmount();
    const std::string name = "round " + std::to_string(round) + " (pulled after " + std::to_string(delay.count()) + " us)";
    // The conversion stops at its next check: the mount it works on is gone.
    // (The engine's log says so only once its mount monitor runs: a disk
    // pulled during start-up goes unannounced.)
    // Plugged in again, as many times as the asymmetry of resumption needs (see runToTheEnd).
    LegacyCheck check;
    size_t plugs = 1;
    for (;; ++plugs) {
      const std::string appeared = "appeared at " + crash.disk.mountPoint() + " ";
      const size_t before = countLines(*engine, appeared);
      crash.disk.mountAgain();
      ASSERT_TRUE(eventually([&] { return countLines(*engine, appeared) > before; }, 20s)) << name;
      const bool done = eventually([&] { return crash.converged(&check) || !crash.conversionRuns(); }, 90s);
      if (done && crash.converged(&check)) break;
      if (!done || plugs == ConversionCrash::kMostStarts) {
        ADD_FAILURE() << name << ", plugged in " << plugs << " time(s): " << check.summary() << "\n" << engine->logText();
        break;
      }
      // Why the disk must be plugged in once more: the state the last run found.
      std::string found;
      for (const auto& line : engine->logLines())
        if (line.rfind("Legacy backups on ", 0) == 0) found = line.substr(line.rfind(": ") + 2);
      std::cout << name << ": the run after plugging in found \"" << found << "\" and did not convert" << std::endl;
      crash.disk.unmount();
    }
    ++plugsNeeded[plugs];
    EXPECT_TRUE(engine->isRunning()) << name;
    engine->stop(10s);
  }
  for (const auto& [count, rounds] : plugsNeeded)
    std::cout << rounds << " round(s) converted after plugging the disk in " << count << " time(s)" << std::endl;
}

}  // namespace
