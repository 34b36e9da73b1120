// Clients over the bus: the real skerrowd on a private system bus with the
// production policy, a loop-mounted ext4 backup disk, fake users, and real
// clients (skerrowctl, and a probe that sends what skerrowctl never would)
// running as those users.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "tests/support/ClientBus.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FileSystemImage.h"

namespace {

using namespace std::chrono_literals;
using skerrow_test::DaemonProcess;
using skerrow_test::EngineFixture;
using skerrow_test::FileSystemImage;
using skerrow_test::RunAs;
using skerrow_test::TestUser;
using skerrow_test::ClientBus;
using skerrow_test::Outcome;
using skerrow_test::firstUID;

constexpr const char* kSaved = "Server did save to permanent store: 1";

// The event names of skerrowctl's JSON lines, in order.
std::vector<std::string> events(const std::string& output) {
  static const std::regex event("\"event\":\"([A-Za-z_]+)\"");
  std::vector<std::string> names;
  for (auto it = std::sregex_iterator(output.begin(), output.end(), event); it != std::sregex_iterator(); ++it)
    names.push_back((*it)[1]);
  return names;
}

// The value of `key` in the first JSON object line whose event is `name`.
std::string eventLine(const std::string& output, const std::string& name) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);)
    if (line.find("\"event\":\"" + name + "\"") != std::string::npos) return line;
  return {};
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}


TEST(ClientBusTest, ANewBackupIsUnscheduledAndPersistentWithPeriodAndDepthZero) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const Outcome managed = bus.run(bus.ann, {"--json", "manage", bus.disk->mountPoint()});
  ASSERT_EQ(managed.status, 0) << managed.output;
  EXPECT_NE(managed.output.find("\"scheduled\":false,\"persistent\":true,\"period\":0.0,\"schedule\":\"off\",\"versionDepth\":0"),
            std::string::npos)
      << managed.output;
  const std::string uid = firstUID(managed.output);
  struct stat folder {};
  ASSERT_EQ(lstat((bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid).c_str(), &folder), 0);
  EXPECT_EQ(folder.st_uid, 1500u);
  EXPECT_EQ(folder.st_mode & 07777, 0700u);
  EXPECT_TRUE(std::filesystem::exists(bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid + "/.com.qsc.backupinfo"));
}

TEST(ClientBusTest, ManagingADiskWithAStorageFolderReusesItAndAddsOneBackupFolder) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string first = bus.manage();
  const std::string second = bus.manage();
  ASSERT_FALSE(first.empty());
  ASSERT_FALSE(second.empty());
  EXPECT_NE(first, second);
  std::vector<std::string> folders;
  for (const auto& item : std::filesystem::directory_iterator(bus.disk->mountPoint() + "/qs skerrow.skstor"))
    folders.push_back(item.path().filename());
  std::sort(folders.begin(), folders.end());
  std::vector<std::string> expected = {first, second};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(folders, expected);
}

TEST(ClientBusTest, TheDatabaseOfAUserWithoutBackupsIsEmpty) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  bus.manage();
  const Outcome listed = bus.run(bus.bob, {"--json", "list"});
  EXPECT_EQ(listed.status, 0) << listed.output;
  EXPECT_EQ(listed.output, "[]\n");
}

TEST(ClientBusTest, TakingOverAPersistentBackupOrAnotherUsersChangesNothing) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string uid = bus.manage();
  const std::string before = bus.annsList();
  EXPECT_EQ(bus.run(bus.ann, {"adopt", uid}).status, 0);  // already persistent: nothing to do
  const Outcome intruded = bus.probe(bus.bob, {"intrude", uid});
  EXPECT_NE(intruded.output.find("takeOverGuestBackup ok"), std::string::npos) << intruded.output;
  EXPECT_EQ(bus.annsList(), before);
}

TEST(ClientBusTest, AnUnknownCategoryChangesNoCategoryButTheDatabaseIsStillSaved) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string uid = bus.manage();
  const size_t saves = bus.engine->countLogLines(kSaved);
  const Outcome probed = bus.probe(bus.ann, {"category", uid, "Nope"});
  ASSERT_EQ(probed.status, 0) << probed.output;
  EXPECT_NE(probed.output.find(uid + " Documents=1 Mail=1 Movies=1 Music=1 Other=1 Pictures=1"), std::string::npos)
      << probed.output;
  EXPECT_EQ(probed.output.find("Nope"), std::string::npos);
  EXPECT_EQ(bus.engine->countLogLines(kSaved), saves + 1) << bus.engine->logText();
}

// The whole journey: a disk, a backup with the six callbacks, a change, a
// second backup, the versions of the changed file, and a restore.
TEST(ClientBusTest, FullJourneyWithSkerrowctl) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string uid = bus.manage({"--depth", "3"});
  ASSERT_FALSE(uid.empty());

  const Outcome first = bus.run(bus.ann, {"--json", "backup"});
  ASSERT_EQ(first.status, 0) << first.output;
  std::vector<std::string> phases;
  for (const auto& name : events(first.output))
    if (name.find("started") == 0 || name.find("finished") == 0) phases.push_back(name);
  const std::vector<std::string> expected = {"startedSourceTally",
                                             "finishedSourceTally",
                                             "startedDestinationTally_withUID",
                                             "finishedDestinationTally_withUID",
                                             "startedTransferTally_withUID",
                                             "finishedTransferTally_withUID"};
  EXPECT_EQ(phases, expected) << first.output;
  // The counts of the finished transfer were read by reference from the engine's tally.
  const std::string finished = eventLine(first.output, "finishedTransferTally_withUID");
  static const std::regex counts("\"transferred\":\\{\"files\":(\\d+),\"bytes\":(\\d+)\\},"
                                 "\"expected\":\\{\"files\":(\\d+),\"bytes\":(\\d+)\\}");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(finished, m, counts)) << finished;
  EXPECT_GT(std::stoll(m[1]), 100);
  EXPECT_EQ(m[1], m[3]);
  EXPECT_EQ(m[2], m[4]);
  EXPECT_NE(first.output.find("\"event\":\"end\",\"uid\":\"" + uid + "\",\"kind\":\"backup\",\"state\":\"completed\",\"completed\":true"),
            std::string::npos)
      << first.output;

  std::ofstream(bus.ann.home + "/Documents/report.txt") << "The second draft, longer.\n";
  const Outcome second = bus.run(bus.ann, {"--json", "backup", uid});
  ASSERT_EQ(second.status, 0) << second.output;
  EXPECT_NE(eventLine(second.output, "finishedTransferTally_withUID").find("\"transferred\":{\"files\":1,"),
            std::string::npos)
      << second.output;

  const Outcome versions = bus.run(bus.ann, {"--json", "versions", "Documents/report.txt"});
  ASSERT_EQ(versions.status, 0) << versions.output;
  EXPECT_NE(versions.output.find("\"version\":0,\"size\":17"), std::string::npos) << versions.output;
  EXPECT_NE(versions.output.find("\"version\":1,\"size\":26"), std::string::npos) << versions.output;

  const std::string elsewhere = bus.ann.home + "/restored-draft.txt";
  const Outcome restored = bus.run(bus.ann, {"restore", "Documents/report.txt", "--version", "0", "--to", elsewhere});
  ASSERT_EQ(restored.status, 0) << restored.output;
  EXPECT_EQ(readFile(elsewhere), "The first draft.\n");
  // Never over an existing file unless asked.
  EXPECT_NE(bus.run(bus.ann, {"restore", "Documents/report.txt", "--version", "0", "--to", elsewhere}).status, 0);
}

TEST(ClientBusTest, AClientReadingTheTallyInsideEveryCallbackDoesNotDeadlockTheEngine) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("1500", "60M");
  bus.manage();
  // skerrowctl reads the lent tally from inside each callback, while the engine waits for the callback's reply.
  const auto started = std::chrono::steady_clock::now();
  const Outcome backup = bus.run(bus.ann, {"--json", "backup"}, SKERROWCTL_PATH, 120s);
  ASSERT_EQ(backup.status, 0) << backup.output;
  EXPECT_LT(std::chrono::steady_clock::now() - started, 60s);
  size_t tallyEvents = 0;
  for (const auto& name : events(backup.output))
    if (name.find("Tally") != std::string::npos) ++tallyEvents;
  EXPECT_GE(tallyEvents, 6u);
  EXPECT_EQ(bus.run(bus.ann, {"heartbeat"}).status, 0);
}

TEST(ClientBusTest, AClientKilledInTheMiddleOfABackupIsDroppedAndTheBackupFinishes) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("3000", "160M");
  bus.manage();
  const size_t saves = bus.engine->countLogLines(kSaved);
  auto client = bus.start(bus.ann, {"--json", "backup"});
  ASSERT_TRUE(client->waitForLogLine("\"event\":\"startedTransferTally_withUID\"", 120s)) << client->logText();
  kill(client->pid(), SIGKILL);
  EXPECT_EQ(client->waitForExit(10s), 128 + SIGKILL);
  // The backup goes on without its client and records its completion.
  const auto deadline = std::chrono::steady_clock::now() + 120s;
  while (bus.engine->countLogLines(kSaved) == saves && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(100ms);
  ASSERT_GT(bus.engine->countLogLines(kSaved), saves) << bus.engine->logText();
  const std::string list = bus.annsList();
  EXPECT_EQ(list.find("\"lastCompletion\":null"), std::string::npos) << list;
  // The client was dropped: the callback that failed left no trace line.
  EXPECT_FALSE(bus.engine->waitForLogLine("finishedTransferTally", 1ms)) << bus.engine->logText();
  EXPECT_TRUE(bus.engine->isRunning());
  // Every client has left the bus by now, and with them their services.
  const auto withdrawn = std::chrono::steady_clock::now() + 10s;
  std::string tree;
  do {
    tree = bus.f.busctl({"tree", "--list", "com.qsc.skerrow"}).output;
  } while (tree.find("/com/qsc/skerrow/service/") != std::string::npos && std::chrono::steady_clock::now() < withdrawn);
  EXPECT_EQ(tree.find("/com/qsc/skerrow/service/"), std::string::npos) << tree;
}

TEST(ClientBusTest, WithNoClientTheCallbacksAreLostWithoutATraceAndTheBackupStillRuns) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string uid = bus.manage({"--period", "1"});
  ASSERT_EQ(bus.run(bus.ann, {"set", uid, "scheduled", "on"}).status, 0);
  // A new engine knows no client; its timer (10 s with -noSchedule) starts the due backup.
  bus.engine->stop();
  bus.engine = &bus.f.startEngine({"-noRealtime", "-noSchedule"});
  // No client is asked anything meanwhile: a client would register with the user's environment.
  ASSERT_TRUE(bus.engine->waitForLogLine("backup for " + uid, 60s)) << bus.engine->logText();
  // The completion is recorded (and saved) after the backup started.
  auto savedAfterStart = [&] {
    bool started = false;
    for (const auto& line : bus.engine->logLines()) {
      started = started || line.find("backup for " + uid) != std::string::npos;
      if (started && line == kSaved) return true;
    }
    return false;
  };
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (!savedAfterStart() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(savedAfterStart()) << bus.engine->logText();
  EXPECT_EQ(readFile(bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid + "/Documents/report@0.txt"),
            "The first draft.\n");
  EXPECT_FALSE(bus.engine->waitForLogLine("QSSkerrowClientProxy::", 1ms)) << bus.engine->logText();
}

// A disk too small for the home folder: every copy after the first few fails.
TEST(ClientBusTest, WithAMaximumOfThreeTheFifthFailedCopyInARowStopsTheBackup) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("400", "96M", 40ull << 20);
  bus.manage();
  const Outcome backup = bus.run(bus.ann, {"--json", "--max-errors", "3", "backup"});
  EXPECT_EQ(backup.status, 3) << backup.output;  // files failed to copy
  EXPECT_NE(backup.output.find("\"state\":\"stopped\""), std::string::npos) << backup.output;
  size_t errors = 0;
  size_t stops = 0;
  for (const auto& name : events(backup.output)) {
    if (stops == 0 && name == "error") ++errors;
    if (name == "stoppedDueToErrorsForBackup") ++stops;
  }
  EXPECT_EQ(stops, 1u) << backup.output;
  // Four errors arrive before the stop (failures before that may have been
  // interrupted by successful copies of small files, so at least four).
  EXPECT_GE(errors, 4u) << backup.output;
  EXPECT_NE(backup.output.find("\"completed\":false"), std::string::npos) << backup.output;
}

TEST(ClientBusTest, AClientClaimingAnotherUsersNameIsRefused) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  bus.manage();
  const Outcome claimed = bus.run(bus.bob, {"--user", "ann", "list"});
  EXPECT_EQ(claimed.status, 4) << claimed.output;
  EXPECT_NE(claimed.output.find("the engine refused"), std::string::npos) << claimed.output;
  const Outcome probed = bus.probe(bus.bob, {"--user", "ann", "intrude", "x"});
  EXPECT_EQ(probed.status, 3) << probed.output;
  EXPECT_NE(probed.output.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << probed.output;
  EXPECT_TRUE(bus.engine->waitForLogLine("Refused a backup service to uid 1501 claiming to act for \"ann\"", 1s));
}

TEST(ClientBusTest, AnotherUserNeitherReadsNorStartsNorChangesABackup) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string uid = bus.manage({"--depth", "4", "--period", "600"});
  const std::string before = bus.annsList();
  const size_t starts = bus.engine->countLogLines("Will try to piggyback if possible");
  const Outcome intruded = bus.probe(bus.bob, {"intrude", uid});
  ASSERT_EQ(intruded.status, 0) << intruded.output;
  for (const char* line : {"database ok 0", "versionDepthForBackup ok 0", "isScheduled ok 0",
                           "periodForBackup ok 0.000000", "userInfoForBackup_forCategory ok 0",
                           "stopManagingBackup ok 0", "cancelBackup ok sent"})
    EXPECT_NE(intruded.output.find(line), std::string::npos) << line << "\n" << intruded.output;
  EXPECT_EQ(bus.annsList(), before);
  EXPECT_EQ(bus.engine->countLogLines("Will try to piggyback if possible"), starts);
}

TEST(ClientBusTest, AnotherUserMayCancelARunningBackup) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("3000", "400M", 1ull << 30);
  const std::string uid = bus.manage();
  auto backup = bus.start(bus.ann, {"--json", "backup"});
  ASSERT_TRUE(backup->waitForLogLine("\"event\":\"startedTransferTally_withUID\"", 120s)) << backup->logText();
  const Outcome cancelled = bus.probe(bus.bob, {"cancel", uid});
  EXPECT_EQ(cancelled.status, 0) << cancelled.output;
  // Ann's skerrowctl learns it and says so: the backup was cancelled.
  EXPECT_EQ(backup->waitForExit(120s), 5) << backup->logText();
  EXPECT_NE(backup->logText().find("\"state\":\"cancelled\",\"completed\":false"), std::string::npos)
      << backup->logText();
  EXPECT_NE(bus.annsList().find("\"lastCompletion\":null"), std::string::npos);
}

TEST(ClientBusTest, AHundredMalformedRequestsChangeNothingAndTheEngineStillAnswersWithin100ms) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string uid = bus.manage();
  const std::string before = bus.annsList();
  const Outcome probed = bus.probe(bus.ann, {"malformed"});
  ASSERT_EQ(probed.status, 0) << probed.output;
  EXPECT_NE(probed.output.find("malformed 100 sent"), std::string::npos) << probed.output;
  EXPECT_TRUE(bus.engine->isRunning()) << bus.engine->logText();
  EXPECT_EQ(bus.annsList(), before);
  auto connection = sdbus::createSessionBusConnectionWithAddress(bus.f.bus().address());
  auto server = sdbus::createProxy(*connection, "com.qsc.skerrow", "/com/qsc/skerrow");
  const auto asked = std::chrono::steady_clock::now();
  bool supports = true;
  server->callMethod("supportsContinuousBackup")
      .onInterface("com.qsc.skerrow.QSSkerrowServerProtocol")
      .storeResultsTo(supports);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 100ms);
  EXPECT_FALSE(supports);  // started with -noRealtime
  EXPECT_FALSE(uid.empty());
}

}  // namespace
