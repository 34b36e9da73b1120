// What a person sees using skerrowctl with the real engine: the real skerrowd
// on a private system bus with the production policy, a loop-mounted ext4
// backup disk, fake users, skerrowctl run as those users.  Each test follows
// one journey and checks the output, the exit status, the files and the log.
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "tests/support/EngineFixture.h"
#include "tests/support/FileSystemImage.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using skerrow_test::DaemonProcess;
using skerrow_test::EngineFixture;
using skerrow_test::FileSystemImage;
using skerrow_test::RunAs;
using skerrow_test::TestUser;

struct Ran {
  int status = -1;
  std::string output;
};

// The JSON lines of an output (other lines skipped).
std::vector<json> jsonLines(const std::string& output) {
  std::vector<json> lines;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || (line[0] != '{' && line[0] != '[')) continue;
    try {
      lines.push_back(json::parse(line));
    } catch (const json::exception&) {
    }
  }
  return lines;
}

std::vector<json> eventsNamed(const std::string& output, const std::string& name) {
  std::vector<json> found;
  for (const auto& line : jsonLines(output))
    if (line.is_object() && line.value("event", "") == name) found.push_back(line);
  return found;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const std::string& contents, time_t modified) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
  const timeval times[2] = {{modified, 0}, {modified, 0}};
  ::utimes(path.c_str(), times);
}

// Every regular file below `folder` with its contents, by relative path.
std::map<std::string, std::string> filesBelow(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (auto it = std::filesystem::recursive_directory_iterator(folder); it != std::filesystem::recursive_directory_iterator();
       ++it)
    if (it->is_regular_file() && !it->is_symlink())
      files[std::filesystem::relative(it->path(), folder).string()] = readFile(it->path());
  return files;
}

// The engine, a disk and a user ann (uid 1500) whose home skerrow_make_home fills.
class Journey {
 public:
  static std::optional<std::string> unavailableReason() {
    if (auto reason = EngineFixture::unavailableReason()) return reason;
    return FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4);
  }

  Journey(const std::string& files, const std::string& bytes, uint64_t diskBytes, const std::string& name = "ann",
          uid_t uid = 1500)
      : ann(f.users().addUser(name, uid, uid, "Ann Example")), bob(f.users().addUser("bob", 1501, 1501)) {
    std::filesystem::remove_all(ann.home);
    if (skerrow_test::runCommand({SKERROW_MAKE_HOME, "-q", "-n", files, "-b", bytes, ann.home}).exitCode != 0)
      throw std::runtime_error("skerrow_make_home failed");
    own();
    disk = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, diskBytes,
                                             skerrow_test::FileSystemImageOptions{.label = "Backup"});
    std::filesystem::permissions(disk->folder(), std::filesystem::perms(0755));
    engine = &f.startEngine({"-noRealtime"});
  }
  void own() {
    skerrow_test::runCommand({"chown", "-R", "-h", std::to_string(ann.uid) + ":" + std::to_string(ann.gid), ann.home});
  }

  std::unique_ptr<DaemonProcess> start(const TestUser& user, const std::vector<std::string>& arguments,
                                       const skerrow_test::Environment& more = {}) {
    skerrow_test::DaemonProcessOptions options;
    options.environment = skerrow_test::mergeEnvironment(f.clientEnvironment(), more);
    options.runAs = RunAs{user.uid, user.gid};
    options.workingDirectory = "/";
    return std::make_unique<DaemonProcess>(SKERROWCTL_PATH, arguments, options);
  }
  Ran run(const TestUser& user, const std::vector<std::string>& arguments, std::chrono::milliseconds timeout = 180s) {
    auto process = start(user, arguments);
    Ran ran;
    ran.status = process->waitForExit(timeout).value_or(-1);
    ran.output = process->logText();
    return ran;
  }
  std::string manage(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"--json", "manage", disk->mountPoint()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Ran managed = run(ann, arguments);
    EXPECT_EQ(managed.status, 0) << managed.output;
    const auto lines = jsonLines(managed.output);
    return lines.empty() ? std::string() : lines.front().value("uid", "");
  }
  json list() {
    const auto lines = jsonLines(run(ann, {"list", "--json"}).output);
    return lines.empty() ? json::array() : lines.front();
  }
  std::string backupFolder(const std::string& uid) const { return disk->mountPoint() + "/qs skerrow.skstor/" + uid; }

  EngineFixture f;
  const TestUser& ann;
  const TestUser& bob;
  std::unique_ptr<FileSystemImage> disk;
  DaemonProcess* engine = nullptr;
};

#define SKIP_WITHOUT_JOURNEY() \
  if (auto reason = Journey::unavailableReason()) GTEST_SKIP() << *reason

TEST(SkerrowctlJourneyTest, ProgressEventsArriveDuringACopyOf3000FilesWithRisingCounts) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("3000", "1200M", 2ull << 30);
  j.manage();
  const Ran backup = j.run(j.ann, {"backup", "--json"});
  ASSERT_EQ(backup.status, 0) << backup.output.substr(0, 4000);
  // One JSON progress event a second: how many fall in the copy depends on
  // the machine's speed (a copy of 3.6 s gave three), so the test asks for
  // counts that rise and never fall, and for an event that showed the copy
  // part done (neither stuck at 0 nor jumping from 0 to the end).
  std::vector<int64_t> copied;
  bool partway = false;
  for (const auto& event : eventsNamed(backup.output, "progress")) {
    if (event["phase"] != "copy") continue;
    const int64_t files = event["transferred"]["files"].get<int64_t>();
    copied.push_back(files);
    partway = partway || (files > 0 && files < event["expected"]["files"].get<int64_t>());
  }
  ASSERT_GE(copied.size(), 2u) << backup.output.substr(0, 4000);
  EXPECT_TRUE(partway) << backup.output.substr(0, 4000);
  std::vector<int64_t> rising{copied.front()};
  for (int64_t n : copied)
    if (n > rising.back()) rising.push_back(n);
  EXPECT_GE(rising.size(), 2u) << backup.output.substr(0, 4000);
  for (size_t i = 1; i < copied.size(); ++i) EXPECT_GE(copied[i], copied[i - 1]);
  const auto end = eventsNamed(backup.output, "end");
  ASSERT_EQ(end.size(), 1u);
  EXPECT_EQ(end[0]["filesCopied"], end[0]["filesExpected"]);
  // Of the 3,000 files, those the black list keeps out (.cache, ...) are not expected.
  EXPECT_GT(end[0]["filesCopied"].get<int64_t>(), 2000);
}

TEST(SkerrowctlJourneyTest, TheSummaryCountsEqualTheTallies) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("400", "20M", 256ull << 20);
  const std::string uid = j.manage();
  const Ran backup = j.run(j.ann, {"backup", "--json"});
  ASSERT_EQ(backup.status, 0) << backup.output;
  const auto finished = eventsNamed(backup.output, "finishedTransferTally_withUID");
  const auto end = eventsNamed(backup.output, "end");
  ASSERT_EQ(finished.size(), 1u) << backup.output;
  ASSERT_EQ(end.size(), 1u) << backup.output;
  EXPECT_EQ(end[0]["filesCopied"], finished[0]["transferred"]["files"]);
  EXPECT_EQ(end[0]["bytesCopied"], finished[0]["transferred"]["bytes"]);
  EXPECT_EQ(end[0]["filesExpected"], finished[0]["expected"]["files"]);
  EXPECT_EQ(end[0]["bytesExpected"], finished[0]["expected"]["bytes"]);
  EXPECT_EQ(end[0]["state"], "completed");
  EXPECT_EQ(end[0]["failedFiles"], 0);
  // And for people: the same numbers in the summary, one line per phase when not on a terminal.
  std::ofstream(j.ann.home + "/Documents/new.txt") << "new\n";
  j.own();
  const Ran human = j.run(j.ann, {"backup", "--tally"});
  ASSERT_EQ(human.status, 0) << human.output;
  EXPECT_NE(human.output.find("Backup " + uid.substr(0, 8) + " completed in "), std::string::npos) << human.output;
  EXPECT_NE(human.output.find("  copied    1 of 1 file, 4 B of 4 B"), std::string::npos) << human.output;
  EXPECT_NE(human.output.find("Counted your home folder"), std::string::npos) << human.output;
  EXPECT_NE(human.output.find("Compared with the backup"), std::string::npos) << human.output;
  EXPECT_NE(human.output.find("Copied "), std::string::npos) << human.output;
  EXPECT_NE(human.output.find("free on " + j.disk->mountPoint()), std::string::npos) << human.output;
  EXPECT_EQ(human.output.find('\r'), std::string::npos) << "no redrawing off a terminal";
}

TEST(SkerrowctlJourneyTest, ANewBackupWithoutAScheduleSaysHowToBackUpNowAndHowToScheduleIt) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("20", "1M", 64ull << 20);
  const Ran managed = j.run(j.ann, {"manage", j.disk->mountPoint()});
  ASSERT_EQ(managed.status, 0) << managed.output;
  EXPECT_NE(managed.output.find("New backup "), std::string::npos) << managed.output;
  const auto uid = j.list()[0].value("uid", std::string());
  ASSERT_FALSE(uid.empty());
  EXPECT_NE(managed.output.find("Not scheduled: \"skerrowctl backup\" backs it up now; \"skerrowctl set " +
                                uid.substr(0, 8) + " scheduled on\""),
            std::string::npos)
      << managed.output;
  EXPECT_EQ(j.list()[0].value("scheduled", true), false);
  // Given a period, it is scheduled at that interval and nothing more is said.
  const Ran forgotten = j.run(j.ann, {"forget", uid.substr(0, 8)});
  ASSERT_EQ(forgotten.status, 0) << forgotten.output;
  const Ran again = j.run(j.ann, {"manage", j.disk->mountPoint(), "--period", "7200"});
  ASSERT_EQ(again.status, 0) << again.output;
  EXPECT_EQ(again.output.find("Not scheduled"), std::string::npos) << again.output;
  const auto listed = j.list();
  ASSERT_FALSE(listed.empty());
  const auto scheduled = std::find_if(listed.begin(), listed.end(), [&](const json& b) { return b.value("uid", "") != uid; });
  ASSERT_NE(scheduled, listed.end()) << listed.dump();
  EXPECT_EQ(scheduled->value("scheduled", false), true) << listed.dump();
  EXPECT_EQ(scheduled->value("schedule", std::string()), "every 2 hours") << listed.dump();
}

TEST(SkerrowctlJourneyTest, ADiskFullRunExitsThreeNamesTheReasonAndIsNotTheLastGoodBackup) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("200", "4M", 64ull << 20);
  const std::string uid = j.manage();
  ASSERT_EQ(j.run(j.ann, {"backup"}).status, 0);
  const json before = j.list();
  ASSERT_EQ(before.size(), 1u);
  const std::string good = before[0]["lastGoodBackup"];
  // Then more than the disk holds: 400 files of 256 kB.
  for (int i = 0; i < 400; ++i)
    writeFile(j.ann.home + "/Movies/clip" + std::to_string(i) + ".bin", std::string(256 << 10, char('a' + i % 26)),
              1700000000);
  j.own();
  const Ran full = j.run(j.ann, {"backup"});
  EXPECT_EQ(full.status, 3) << full.output;
  EXPECT_NE(full.output.find("No space left on device"), std::string::npos) << full.output;
  EXPECT_NE(full.output.find("  failed    "), std::string::npos) << full.output;
  EXPECT_NE(full.output.find(" files: No space left on device"), std::string::npos) << full.output;
  EXPECT_NE(full.output.find("needs "), std::string::npos) << "the warning before the copy\n" << full.output;
  const json after = j.list();
  ASSERT_EQ(after.size(), 1u);
  EXPECT_EQ(after[0]["lastGoodBackup"], good) << after.dump();
  // The engine's own limit (100 failed copies in a row), asked by default, stopped it.
  EXPECT_EQ(after[0]["lastRun"]["state"], "stopped") << after.dump();
  EXPECT_GT(after[0]["lastRun"]["failedFiles"].get<int64_t>(), 100) << after.dump();
  const Ran table = j.run(j.ann, {"list"});
  EXPECT_NE(table.output.find("  stopped\n"), std::string::npos) << table.output;
  // The engine's journal of the backup names the failed copies with its uid.
  EXPECT_TRUE(j.engine->waitForLogLine("Backup " + uid + " could not copy", 1s)) << j.engine->logText();
}

TEST(SkerrowctlJourneyTest, ABackupCancelledFromAnotherShellIsReportedWithinTwoSeconds) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("3000", "1200M", 2ull << 30);
  const std::string uid = j.manage();
  auto backup = j.start(j.ann, {"backup", "--json"});
  ASSERT_TRUE(backup->waitForLogLine("\"event\":\"startedTransferTally_withUID\"", 180s)) << backup->logText();
  // From another shell, with the uid shortened as git shortens hashes.
  const Ran cancelled = j.run(j.ann, {"cancel", uid.substr(0, 8)});
  const auto told = std::chrono::steady_clock::now();
  ASSERT_EQ(cancelled.status, 0) << cancelled.output;
  const auto status = backup->waitForExit(10s);
  const auto took = std::chrono::steady_clock::now() - told;
  EXPECT_EQ(status, 5) << backup->logText().substr(0, 3000);
  EXPECT_LT(took, 2s) << std::chrono::duration<double>(took).count();
  const auto end = eventsNamed(backup->logText(), "end");
  ASSERT_EQ(end.size(), 1u) << backup->logText().substr(0, 3000);
  EXPECT_EQ(end[0]["state"], "cancelled");
  EXPECT_EQ(j.list()[0]["lastRun"]["state"], "cancelled");
  // A count right after the cancel starts at once.
  const auto asked = std::chrono::steady_clock::now();
  auto count = j.start(j.ann, {"count", uid.substr(0, 8), "--json"});
  ASSERT_TRUE(count->waitForLogLine("\"event\":\"startedSourceTally\"", 10s)) << count->logText();
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 5s);
  EXPECT_EQ(count->waitForExit(180s), 0) << count->logText().substr(0, 3000);
}

TEST(SkerrowctlJourneyTest, RestoreAtOfAFolderGivesExactlyTheFilesOfThatDate) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("50", "1M", 256ull << 20);
  const std::string home = j.ann.home;
  std::filesystem::remove_all(home + "/Projects");
  writeFile(home + "/Projects/plan.txt", "plan, first\n", 1700000000);
  writeFile(home + "/Projects/notes/a.txt", "a, first\n", 1700000000);
  writeFile(home + "/Projects/.hidden", "hidden\n", 1700000000);
  j.own();
  j.manage({"--keep", "5"});
  ASSERT_EQ(j.run(j.ann, {"backup"}).status, 0);
  const auto firstState = filesBelow(home + "/Projects");
  writeFile(home + "/Projects/plan.txt", "plan, second and longer\n", 1700100000);
  writeFile(home + "/Projects/later.txt", "written later\n", 1700100000);
  j.own();
  ASSERT_EQ(j.run(j.ann, {"backup"}).status, 0);
  const std::string to = j.f.storeRoot() + "/restored";
  std::filesystem::create_directories(to);
  skerrow_test::runCommand({"chown", "1500:1500", to});
  // Between the two: 2023-11-15T00:00:00Z.
  const Ran restored = j.run(j.ann, {"restore", "Projects", "--at", "2023-11-15T00:00:00Z", "--to", to + "/then"});
  ASSERT_EQ(restored.status, 0) << restored.output;
  EXPECT_EQ(filesBelow(to + "/then"), firstState);
  struct stat st {};
  ASSERT_EQ(::stat((to + "/then/plan.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1700000000);
  // Without a date: the newest of each file.
  ASSERT_EQ(j.run(j.ann, {"restore", "Projects", "--to", to + "/now"}).status, 0);
  EXPECT_EQ(filesBelow(to + "/now"), filesBelow(home + "/Projects"));
  // Never over an existing file without --overwrite; what could not be restored is said.
  const Ran again = j.run(j.ann, {"restore", "Projects"});
  EXPECT_EQ(again.status, 1) << again.output;
  EXPECT_NE(again.output.find("could not restore Projects/plan.txt"), std::string::npos) << again.output;
  // The versions of the folder's files, with when each was stored.
  const Ran versions = j.run(j.ann, {"versions", "Projects", "--json"});
  ASSERT_EQ(versions.status, 0) << versions.output;
  const json all = jsonLines(versions.output).at(0);
  ASSERT_EQ(all.size(), 4u) << all.dump();
  for (const auto& file : all)
    for (const auto& v : file["versions"]) EXPECT_TRUE(v["stored"].is_string()) << file.dump();
}

TEST(SkerrowctlJourneyTest, TheMountedViewMatchesTheHomeAtTwoDates) {
  SKIP_WITHOUT_JOURNEY();
  if (!std::filesystem::exists("/dev/fuse")) GTEST_SKIP() << "no /dev/fuse";
  Journey j("30", "1M", 256ull << 20);
  const std::string home = j.ann.home;
  // A home of known files only, so the view can be compared with it whole.
  for (const auto& item : std::filesystem::directory_iterator(home)) std::filesystem::remove_all(item.path());
  writeFile(home + "/Documents/report.txt", "first\n", 1700000000);
  writeFile(home + "/.profile", "export A=1\n", 1700000000);
  j.own();
  j.manage({"--keep", "3"});
  ASSERT_EQ(j.run(j.ann, {"backup"}).status, 0);
  const auto first = filesBelow(home);
  writeFile(home + "/Documents/report.txt", "second, longer\n", 1700100000);
  writeFile(home + "/Documents/added.txt", "added\n", 1700100000);
  j.own();
  ASSERT_EQ(j.run(j.ann, {"backup"}).status, 0);
  const auto second = filesBelow(home);
  const std::string view = j.f.storeRoot() + "/view";
  std::filesystem::create_directories(view);
  // Mounted by root for ann: a user's own mount goes through the set-uid
  // fusermount3, which names users from the system's files only and so
  // refuses the test's users; root mounts without it.
  const TestUser& root = j.f.users().user("root");
  for (const auto& [date, expected] : {std::pair{std::string("2023-11-15T00:00:00Z"), first},
                                       std::pair{std::string("2023-11-17T00:00:00Z"), second}}) {
    auto mounted = j.start(root, {"--user", "ann", "mount", view, "--at", date, "--foreground"});
    ASSERT_TRUE(mounted->waitForLogLine("end with: skerrowctl umount", 30s)) << mounted->logText();
    auto seen = filesBelow(view);
    EXPECT_EQ(seen, expected) << date;
    EXPECT_TRUE(std::filesystem::exists(view + "/.profile"));
    const Ran unmounted = j.run(root, {"umount", view});
    EXPECT_EQ(unmounted.status, 0) << unmounted.output;
    EXPECT_EQ(mounted->waitForExit(10s), 0) << mounted->logText();
  }
}

TEST(SkerrowctlJourneyTest, WithoutTheEngineEveryCommandSaysSoWithItsOwnStatus) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("10", "100K", 64ull << 20);
  j.engine->stop();
  const Ran listed = j.run(j.ann, {"list"});
  EXPECT_EQ(listed.status, 4) << listed.output;
  EXPECT_NE(listed.output.find("skerrowctl: the engine is not running"), std::string::npos) << listed.output;
  const Ran json = j.run(j.ann, {"backup", "--json"});
  EXPECT_EQ(json.status, 4) << json.output;
  EXPECT_EQ(jsonLines(json.output).at(0)["status"], 4) << json.output;
}

// A notification server of our own on a private session bus: it owns
// org.freedesktop.Notifications and records every notice.
class NotificationRecorder {
 public:
  explicit NotificationRecorder(const std::string& address)
      : connection_(sdbus::createSessionBusConnectionWithAddress(address)) {
    connection_->requestName("org.freedesktop.Notifications");
    object_ = sdbus::createObject(*connection_, "/org/freedesktop/Notifications");
    object_->registerMethod("Notify")
        .onInterface("org.freedesktop.Notifications")
        .implementedAs([this](const std::string&, uint32_t, const std::string&, const std::string& summary,
                              const std::string& body, const std::vector<std::string>&,
                              const std::map<std::string, sdbus::Variant>&, int32_t) {
          std::lock_guard<std::mutex> lock(mutex_);
          shown_.emplace_back(summary, body);
          return static_cast<uint32_t>(shown_.size());
        });
    object_->finishRegistration();
    connection_->enterEventLoopAsync();
  }
  ~NotificationRecorder() { connection_->leaveEventLoop(); }
  std::vector<std::pair<std::string, std::string>> shown() {
    std::lock_guard<std::mutex> lock(mutex_);
    return shown_;
  }
  bool waitFor(const std::string& summary, std::chrono::seconds timeout) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    do {
      for (const auto& [s, b] : shown())
        if (s == summary) return true;
      std::this_thread::sleep_for(50ms);
    } while (std::chrono::steady_clock::now() < until);
    return false;
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IObject> object_;
  std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> shown_;
};

TEST(SkerrowctlJourneyTest, TheAgentShowsFinishedBackupAndAFailureNotification) {
  SKIP_WITHOUT_JOURNEY();
  Journey j("200", "4M", 64ull << 20);
  // The session bus of ann's desktop: anyone may own and call anything on it.
  skerrow_test::TempDir policyFolder;
  const std::string policy = policyFolder.write(
      "open.conf",
      "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
      " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
      "<busconfig><policy context=\"default\"><allow own=\"*\"/><allow send_destination=\"*\"/></policy></busconfig>\n");
  skerrow_test::PrivateBus desktop(policy, j.f.users().environment());
  NotificationRecorder recorder(desktop.address());
  const std::string uid = j.manage();
  auto agent = j.start(j.ann, {"agent"}, {{"DBUS_SESSION_BUS_ADDRESS", desktop.address()}});
  ASSERT_TRUE(recorder.waitFor("Awake", 20s)) << agent->logText();
  ASSERT_TRUE(agent->waitForLogLine("connected to the engine", 10s)) << agent->logText();
  const Ran first = j.run(j.ann, {"backup"});
  ASSERT_EQ(first.status, 0) << first.output;
  ASSERT_TRUE(recorder.waitFor("Finished backup", 20s)) << agent->logText();
  // A second agent leaves at once: one per session.
  auto second = j.start(j.ann, {"agent"}, {{"DBUS_SESSION_BUS_ADDRESS", desktop.address()}});
  EXPECT_EQ(second->waitForExit(10s), 1) << second->logText();
  EXPECT_NE(second->logText().find("another agent runs"), std::string::npos) << second->logText();
  for (int i = 0; i < 400; ++i)
    writeFile(j.ann.home + "/Movies/clip" + std::to_string(i) + ".bin", std::string(256 << 10, char('a' + i % 26)),
              1700000000);
  j.own();
  EXPECT_EQ(j.run(j.ann, {"backup"}).status, 3);
  // Said within the minute after "Finished backup" at the latest.
  const bool failure = recorder.waitFor("Backup failed", 75s) || recorder.waitFor("Backup stopped", 1s);
  EXPECT_TRUE(failure) << agent->logText();
  bool named = false;
  for (const auto& [summary, body] : recorder.shown())
    if ((summary == "Backup failed" || summary == "Backup stopped") &&
        body.find("No space left on device") != std::string::npos)
      named = true;
  EXPECT_TRUE(named) << agent->logText();
  // It reconnects when the engine restarts, and says so.
  const size_t awake = [&] {
    size_t n = 0;
    for (const auto& [s, b] : recorder.shown()) n += s == "Awake";
    return n;
  }();
  j.engine->stop();
  j.engine = &j.f.startEngine({"-noRealtime"});
  ASSERT_TRUE(agent->waitForLogLine("the engine is away", 20s)) << agent->logText();
  const auto until = std::chrono::steady_clock::now() + 90s;
  size_t now = awake;
  while (now == awake && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(100ms);
    now = 0;
    for (const auto& [s, b] : recorder.shown()) now += s == "Awake";
  }
  EXPECT_GT(now, awake) << agent->logText();
  EXPECT_FALSE(uid.empty());
}

}  // namespace
