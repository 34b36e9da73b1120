// Continuous backup end to end: the real skerrowd (continuous backup on) on a
// private bus, ann's home folder on a loop-mounted ext4 file system, her
// backup on a second loop-mounted ext4 disk, and skerrowctl run as ann.
// Each test follows what she does and checks what she sees: skerrowctl's
// output and exit status, the files on the backup disk, the engine's log.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Engine/records/QSVersionName.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"

using namespace std::chrono_literals;
using skerrow_test::DaemonProcess;
using skerrow_test::EngineFixture;
using skerrow_test::FileSystemImage;
using skerrow_test::RunAs;

namespace {

constexpr const char* kSaved = "Server did save to permanent store: 1";

struct Outcome {
  int status = -1;
  std::string output;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The JSON events of skerrowctl's output whose name starts with `prefix`,
// without what differs from one run to the next (times and dates).
std::vector<nlohmann::json> eventsStartingWith(const std::string& output, const std::string& prefix) {
  std::vector<nlohmann::json> found;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] != '{') continue;
    auto event = nlohmann::json::parse(line, nullptr, false);
    if (event.is_discarded() || event.value("event", "").rfind(prefix, 0) != 0) continue;
    for (const char* changing : {"seconds", "started", "ended", "date", "elapsed", "time"}) event.erase(changing);
    found.push_back(event);
  }
  return found;
}

// Saves a file the way most programs do: truncate, write, close.
void save(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  ::chown(path.c_str(), 1500, 1500);
}

// The names in one folder of the backup, sorted.
std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& e : std::filesystem::directory_iterator(folder, error)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

class ContinuousBackupJourney : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto reason = EngineFixture::unavailableReason()) GTEST_SKIP() << *reason;
    if (auto reason = FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4)) GTEST_SKIP() << *reason;
    fixture = std::make_unique<EngineFixture>();
    homes = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, 512ull << 20);
    std::filesystem::permissions(homes->folder(), std::filesystem::perms(0755));
    ann = &fixture->users().addUserWithHome("ann", 1500, 1500, "Ann Example", homes->mountPoint() + "/ann");
    home = ann->home;
    save(home + "/Documents/report.txt", "The first draft.\n");
    save(home + "/Documents/notes.txt", "notes\n");
    save(home + "/Music/song.mp3", "la la la\n");
    disk = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, 512ull << 20,
                                             skerrow_test::FileSystemImageOptions{.label = "Backup"});
    std::filesystem::permissions(disk->folder(), std::filesystem::perms(0755));
    engine = &fixture->startEngine({});  // continuous backup on, the real schedule
  }

  Outcome ctl(const std::vector<std::string>& arguments) {
    skerrow_test::DaemonProcessOptions options;
    options.environment = fixture->clientEnvironment();
    options.runAs = RunAs{1500, 1500};
    options.workingDirectory = "/";
    DaemonProcess process(SKERROWCTL_PATH, arguments, options);
    Outcome outcome;
    outcome.status = process.waitForExit(120s).value_or(-1);
    outcome.output = process.logText();
    return outcome;
  }

  // What ann does first: a backup on the disk (due only tomorrow), backed
  // up once, then scheduled, which switches continuous backup on for it.
  void manageAndBackUp(const std::vector<std::string>& more = {"--depth", "3"}) {
    std::vector<std::string> arguments = {"--json", "manage", disk->mountPoint(), "--period", "86400"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Outcome managed = ctl(arguments);
    ASSERT_EQ(managed.status, 0) << managed.output;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(managed.output, m, std::regex("\"uid\":\"([0-9A-F-]{36})\""))) << managed.output;
    uid = m[1];
    backup = disk->mountPoint() + "/qs skerrow.skstor/" + uid;
    const Outcome first = ctl({"backup"});
    ASSERT_EQ(first.status, 0) << first.output;
    ASSERT_EQ(readFile(backup + "/Documents/report@0.txt"), "The first draft.\n");
    const Outcome activated = ctl({"activate"});
    ASSERT_EQ(activated.status, 0) << activated.output;
    ASSERT_NE(activated.output.find("Your backups are scheduled again"), std::string::npos) << activated.output;
  }

  // Saves a marker file and waits until the engine stored it: every change
  // ann made before it has then been seen and dealt with.
  bool storeMarker() {
    const std::string name = "marker" + std::to_string(++markers) + ".txt";
    save(home + "/Documents/" + name, "marker");
    return waitForFile(backup + "/Documents/" + QSVersionName(name, 0));
  }
  static bool waitForFile(const std::string& path, std::chrono::milliseconds timeout = 30s) {
    return skerrow_test::eventually([&] { return std::filesystem::exists(path); }, timeout);
  }
  size_t copiesStarted() const {
    size_t n = 0;
    for (const auto& line : engine->logLines()) n += line.find("++++++ did backup: ") != std::string::npos;
    return n;
  }

  std::unique_ptr<EngineFixture> fixture;
  std::unique_ptr<FileSystemImage> homes;
  std::unique_ptr<FileSystemImage> disk;
  const skerrow_test::TestUser* ann = nullptr;
  std::string home;
  DaemonProcess* engine = nullptr;
  std::string uid;
  std::string backup;
  int markers = 0;
};

}  // namespace

TEST_F(ContinuousBackupJourney, AfterAScheduledBackupAChangedFileAppearsAsItsNextVersionWithTheNewBytes) {
  manageAndBackUp();
  save(home + "/Documents/report.txt", "The second draft, much better.\n");
  ASSERT_TRUE(waitForFile(backup + "/Documents/report@1.txt"));
  ASSERT_TRUE(skerrow_test::eventually(
      [&] { return readFile(backup + "/Documents/report@1.txt") == "The second draft, much better.\n"; }));
  EXPECT_TRUE(engine->waitForLogLine("++++++ did backup: " + home + "/Documents/report.txt to " + backup +
                                     "/Documents/report@1.txt"));
  const Outcome versions = ctl({"versions", "Documents/report.txt"});
  EXPECT_EQ(versions.status, 0) << versions.output;
  EXPECT_NE(versions.output.find("report@0.txt"), std::string::npos) << versions.output;
  EXPECT_NE(versions.output.find("report@1.txt"), std::string::npos) << versions.output;
  // The first draft is still there to restore, into a folder of her own.
  const std::string restoreTo = homes->mountPoint() + "/restored";
  std::filesystem::create_directories(restoreTo);
  ::chown(restoreTo.c_str(), 1500, 1500);
  const Outcome restored = ctl({"restore", "Documents/report.txt", "--version", "0", "--to", restoreTo + "/"});
  EXPECT_EQ(restored.status, 0) << restored.output;
  EXPECT_EQ(readFile(restoreTo + "/report.txt"), "The first draft.\n");
}

TEST_F(ContinuousBackupJourney, AnEditorStyleSaveStoresExactlyOneNewVersion) {
  manageAndBackUp();
  // The editor writes a temporary file next to the document and renames it over the document.
  save(home + "/Documents/.report.txt.tmp", "Saved by the editor.\n");
  std::filesystem::rename(home + "/Documents/.report.txt.tmp", home + "/Documents/report.txt");
  save(home + "/Documents/notes.txt.swp", "vim's swap file");
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(namesIn(backup + "/Documents"),
            (std::vector<std::string>{"marker1@0.txt", "notes@0.txt", "report@0.txt", "report@1.txt"}));
  EXPECT_EQ(readFile(backup + "/Documents/report@1.txt"), "Saved by the editor.\n");
}

TEST_F(ContinuousBackupJourney, ACaseOnlyRenameInTheSameFolderRenamesTheNewestStoredVersionAndCopiesNothing) {
  manageAndBackUp();
  const size_t before = copiesStarted();
  std::filesystem::rename(home + "/Documents/report.txt", home + "/Documents/Report.txt");
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(namesIn(backup + "/Documents"),
            (std::vector<std::string>{"Report@0.txt", "marker1@0.txt", "notes@0.txt"}));
  EXPECT_EQ(copiesStarted(), before + 1);  // the marker's copy only
  const Outcome versions = ctl({"versions", "Documents/Report.txt"});
  EXPECT_EQ(versions.status, 0) << versions.output;
  EXPECT_NE(versions.output.find("Report@0.txt"), std::string::npos) << versions.output;
}

TEST_F(ContinuousBackupJourney, ARenameIntoAnotherFolderStoresTheFileAtItsNewPath) {
  manageAndBackUp();
  std::filesystem::create_directories(home + "/Documents/Archive");
  std::filesystem::rename(home + "/Documents/notes.txt", home + "/Documents/Archive/notes.txt");
  ASSERT_TRUE(waitForFile(backup + "/Documents/Archive/notes@0.txt"));
  EXPECT_EQ(readFile(backup + "/Documents/Archive/notes@0.txt"), "notes\n");
}

TEST_F(ContinuousBackupJourney, ChangesOutsideTheHomeInAnExcludedFolderInAnUnscheduledCategoryOrWhilePausedCopyNothing) {
  manageAndBackUp();
  const Outcome filtered = ctl({"filter", "/Documents/private(/.*)?"});
  ASSERT_EQ(filtered.status, 0) << filtered.output;
  const Outcome music = ctl({"set", uid, "category", "Music", "off"});
  ASSERT_EQ(music.status, 0) << music.output;
  save(homes->mountPoint() + "/elsewhere/outside.txt", "not ann's");
  save(home + "/Documents/private/diary.txt", "dear diary");
  save(home + "/Music/song.mp3", "a new song");
  ASSERT_TRUE(storeMarker());
  const Outcome paused = ctl({"pause"});
  ASSERT_EQ(paused.status, 0) << paused.output;
  save(home + "/Documents/while-paused.txt", "written while paused");
  save(home + "/Documents/notes.txt", "changed while paused");
  // Both changes were seen while the backup was paused, before it is active again.
  for (const char* name : {"while-paused.txt", "notes.txt"})
    ASSERT_TRUE(engine->waitForLogLine("++++++ not scheduled, not backed up now: " + home + "/Documents/" + name, 30s))
        << engine->logText();
  const Outcome activated = ctl({"activate"});
  ASSERT_EQ(activated.status, 0) << activated.output;
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(namesIn(backup + "/Documents"),
            (std::vector<std::string>{"marker1@0.txt", "marker2@0.txt", "notes@0.txt", "report@0.txt"}));
  EXPECT_EQ(namesIn(backup + "/Music"), (std::vector<std::string>{"song@0.mp3"}));
  EXPECT_FALSE(std::filesystem::exists(backup + "/elsewhere"));
}

TEST_F(ContinuousBackupJourney, WithVersionDepth2ABurstOf20SavesLeavesOnlyTheNewestVersionsAndTheNewestHoldsTheFinalBytes) {
  manageAndBackUp({"--depth", "2"});
  const auto draft = [](int i) { return "draft " + std::to_string(i) + std::string(static_cast<size_t>(i), '.') + "\n"; };
  for (int i = 1; i <= 20; ++i) save(home + "/Documents/report.txt", draft(i));
  // Done when the newest stored version holds the last save.
  std::string newest;
  ASSERT_TRUE(skerrow_test::eventually(
      [&] {
        const auto names = namesIn(backup + "/Documents");
        uint64_t top = 0;
        newest.clear();
        for (const auto& name : names) {
          const auto parsed = QSParseFileName(name);
          if (!parsed || (*parsed)[0] != "report.txt") continue;
          const uint64_t index = std::stoull((*parsed)[1]);
          if (newest.empty() || index > top) top = index, newest = name;
        }
        return !newest.empty() && readFile(backup + "/Documents/" + newest) == draft(20);
      },
      30s));
  ASSERT_TRUE(storeMarker());
  size_t versions = 0;
  for (const auto& name : namesIn(backup + "/Documents")) versions += name.rfind("report@", 0) == 0;
  EXPECT_LE(versions, 3u);  // the newest and at most two older ones
  EXPECT_GE(versions, 2u);
  EXPECT_EQ(readFile(backup + "/Documents/" + newest), draft(20));
}

TEST_F(ContinuousBackupJourney, ADroppedEventsNoticeIsFollowedByABackupAtTheNextTickThatStoresEveryChange) {
  manageAndBackUp();
  const size_t savedBefore = engine->countLogLines(kSaved);
  // The engine is stopped while far more changes happen than the kernel
  // keeps for it: a build's worth of files made and removed outside the
  // home (100,000), then ann's.
  ASSERT_EQ(::kill(engine->pid(), SIGSTOP), 0);
  const std::string churn = homes->mountPoint() + "/build";
  std::filesystem::create_directories(churn);
  for (int i = 0; i < 100000; ++i) {
    const std::string object = churn + "/o" + std::to_string(i);
    std::ofstream(object) << i;
    ::unlink(object.c_str());
  }
  for (int i = 0; i < 300; ++i) save(home + "/Documents/batch/f" + std::to_string(i) + ".txt", "batch " + std::to_string(i));
  save(home + "/Documents/report.txt", "Changed while nobody listened.\n");
  ASSERT_EQ(::kill(engine->pid(), SIGCONT), 0);
  EXPECT_TRUE(engine->waitForLogLine("went unrecorded; its homes are backed up at the next tick", 60s));
  ASSERT_TRUE(engine->waitForLogLine("Starting a backup of " + uid + ": changes in its home folder went unrecorded", 150s));
  ASSERT_TRUE(skerrow_test::eventually([&] { return engine->countLogLines(kSaved) > savedBefore; }, 120s));
  for (int i = 0; i < 300; ++i)
    EXPECT_EQ(readFile(backup + "/Documents/batch/f" + std::to_string(i) + "@0.txt"), "batch " + std::to_string(i));
  EXPECT_EQ(readFile(backup + "/Documents/report@1.txt"), "Changed while nobody listened.\n");
  EXPECT_FALSE(std::filesystem::exists(backup + "/build"));
}

// With continuous backup on, a backup reads again only the folders the
// watcher saw change; a file whose modification time alone changed (which
// continuous backup does not copy) is still found by that backup and stored.
TEST_F(ContinuousBackupJourney, ABackupAfterContinuousBackupRanReadsOnlyChangedFoldersAndStillStoresWhatChanged) {
  manageAndBackUp();
  const Outcome unchanged = ctl({"backup"});
  ASSERT_EQ(unchanged.status, 0) << unchanged.output;
  ASSERT_TRUE(engine->waitForLogLine("Walked " + home + " warm: 0 folders read", 30s)) << engine->logText();
  ASSERT_TRUE(engine->waitForLogLine("Walked " + backup + " warm", 30s)) << engine->logText();

  const std::string song = home + "/Music/song.mp3";
  const timespec times[2] = {{1600000000, 0}, {1600000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, song.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  const Outcome changed = ctl({"backup"});
  ASSERT_EQ(changed.status, 0) << changed.output;
  EXPECT_TRUE(engine->waitForLogLine("Walked " + home + " warm: 1 folders read", 30s)) << engine->logText();
  EXPECT_EQ(readFile(backup + "/Music/" + QSVersionName("song.mp3", 1)), "la la la\n");
  struct stat stored {};
  ASSERT_EQ(::stat((backup + "/Music/" + QSVersionName("song.mp3", 1)).c_str(), &stored), 0);
  EXPECT_EQ(stored.st_mtim.tv_sec, 1600000000);
}

// A backup with nothing changed since one that found nothing to do walks
// neither folder, yet tells ann exactly what that one told her.  A stored
// copy removed behind the engine's back ends that: the next backup walks
// again and stores the file anew.
TEST_F(ContinuousBackupJourney, ABackupWithNothingChangedSinceOneThatFoundNothingToDoWalksNeitherFolderAndSaysTheSame) {
  manageAndBackUp();
  const Outcome walked = ctl({"--json", "backup"});
  ASSERT_EQ(walked.status, 0) << walked.output;
  const Outcome standing = ctl({"--json", "backup"});
  ASSERT_EQ(standing.status, 0) << standing.output;
  const std::string settled = "Nothing changed in " + home + " nor in " + backup;
  ASSERT_TRUE(engine->waitForLogLine(settled, 30s)) << engine->logText();
  for (const char* prefix : {"finished", "end"}) {
    const auto before = eventsStartingWith(walked.output, prefix);
    const auto after = eventsStartingWith(standing.output, prefix);
    ASSERT_FALSE(before.empty()) << walked.output;
    EXPECT_EQ(after, before) << walked.output << "\n---\n" << standing.output;
  }
  EXPECT_NE(standing.output.find("\"state\":\"completed\""), std::string::npos) << standing.output;

  std::filesystem::remove(backup + "/Documents/notes@0.txt");
  const Outcome repaired = ctl({"--json", "backup"});
  ASSERT_EQ(repaired.status, 0) << repaired.output;
  EXPECT_EQ(readFile(backup + "/Documents/notes@0.txt"), "notes\n");
  size_t standings = 0;
  for (const auto& line : engine->logLines()) standings += line.find(settled) != std::string::npos;
  EXPECT_EQ(standings, 1u) << engine->logText();
}
