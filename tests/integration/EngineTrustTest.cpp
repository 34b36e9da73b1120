// What a user must be able to trust, over the real bus with the real engine:
// a cancel stops any stage of a backup at once and leaves nothing torn; an
// unprivileged user cannot act on the whole engine or on others; a client
// that calls the engine from inside a callback never stalls it; hostile
// property lists on a disk or in the store do not bring the engine down; the
// database the engine writes is read by other tools.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/ClientBus.h"
#include "tests/support/DeepPropertyLists.h"
#include "tests/support/JournalDaemon.h"
#include "tests/support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using skerrow_test::ClientBus;
using skerrow_test::Outcome;

namespace fs = std::filesystem;

// The number after `label` on the line that starts with it ("outcome cancelled 312" → 312), or -1.
long numberAfter(const std::string& output, const std::string& label) {
  const std::regex line("(^|\n)" + label + " (-?[0-9]+)");
  std::smatch m;
  return std::regex_search(output, m, line) ? std::stol(m[2].str()) : -1;
}

void writeFile(const std::string& path, uintmax_t bytes) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary);
  const std::string block(1 << 20, 'B');
  for (uintmax_t done = 0; done < bytes; done += block.size()) out.write(block.data(), block.size());
}

// Temporary copies (".skerrow-") and versions of `name` torn short of `size`, below `folder`.
std::vector<std::string> tornOrTemporary(const std::string& folder, const std::string& name, uintmax_t size) {
  std::vector<std::string> found;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (error) break;
    const std::string file = it->path().filename().string();
    if (file.rfind(".skerrow-", 0) == 0) found.push_back(it->path().string());
    if (!name.empty() && file.rfind(name + "@", 0) == 0 && it->file_size(error) != size)
      found.push_back(it->path().string());
  }
  return found;
}

// The regular files below a backup folder but its metadata file.
std::vector<std::string> storedCopies(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (error) break;
    if (it->is_regular_file(error) && it->path().filename() != ".com.qsc.backupinfo") files.push_back(it->path());
  }
  return files;
}

// A backup of ann in the bus's setting, cancelled during `phase` by the probe;
// the probe's output.
Outcome cancelDuring(ClientBus& bus, const std::string& uid, const std::string& phase) {
  const std::string folder = bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid;
  return bus.probe(bus.ann, {"cancel-during", phase, uid, folder});
}

// What every cancel must show: the stage was reached, the engine said
// "cancelled" within a second, and a count asked right after started at
// once and ran to its end.
void expectPromptCancel(const Outcome& probe, const std::string& phase) {
  ASSERT_EQ(probe.status, 0) << probe.output;
  EXPECT_NE(probe.output.find("phase " + phase + " reached"), std::string::npos) << probe.output;
  EXPECT_NE(probe.output.find("outcome cancelled "), std::string::npos) << probe.output;
  const long cancelMs = numberAfter(probe.output, "outcome cancelled");
  EXPECT_GE(cancelMs, 0) << probe.output;
  EXPECT_LT(cancelMs, 1000) << probe.output;
  const long countMs = numberAfter(probe.output, "count started");
  EXPECT_GE(countMs, 0) << probe.output;
  EXPECT_LT(countMs, 1000) << probe.output;
  EXPECT_NE(probe.output.find("count ended completed"), std::string::npos) << probe.output;
}

}  // namespace

TEST(EngineTrustTest, CancelDuringTheSourceWalkEndsWithinASecondAndACountStartsAtOnce) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("40000", "40M", 1ull << 30);
  const std::string uid = bus.manage();
  const Outcome probe = cancelDuring(bus, uid, "source");
  expectPromptCancel(probe, "source");
  // The walk stopped before anything was copied.
  EXPECT_TRUE(storedCopies(bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid).empty());
}

TEST(EngineTrustTest, CancelDuringTheDestinationWalkEndsWithinASecondAndACountStartsAtOnce) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("40000", "40M", 1ull << 30);
  const std::string uid = bus.manage();
  ASSERT_EQ(bus.run(bus.ann, {"backup"}).status, 0);
  const std::string folder = bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid;
  const size_t stored = storedCopies(folder).size();
  ASSERT_GT(stored, 1000u);
  const Outcome probe = cancelDuring(bus, uid, "destination");
  expectPromptCancel(probe, "destination");
  EXPECT_EQ(storedCopies(folder).size(), stored);
}

TEST(EngineTrustTest, CancelDuringTheDryRunEndsWithinASecondCopiesNothingAndACountStartsAtOnce) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("60000", "60M", 1ull << 30);
  const std::string uid = bus.manage();
  const Outcome probe = cancelDuring(bus, uid, "dryrun");
  expectPromptCancel(probe, "dryrun");
  // The cancel came before the copy: nothing was stored.
  EXPECT_TRUE(storedCopies(bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid).empty())
      << probe.output;
}

TEST(EngineTrustTest, CancelDuringTheCopyOfAOneGibibyteFileEndsWithinASecondLeavingNoTornVersion) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("20", "1M", 3ull << 30);
  writeFile(bus.ann.home + "/Documents/large.bin", 1ull << 30);
  skerrow_test::runCommand({"chown", "-R", "-h", "1500:1500", bus.ann.home});
  const std::string uid = bus.manage();
  const Outcome probe = cancelDuring(bus, uid, "copy");
  expectPromptCancel(probe, "copy");
  const std::string folder = bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid;
  EXPECT_TRUE(tornOrTemporary(folder, "large", 1ull << 30).empty());
  EXPECT_FALSE(fs::exists(folder + "/Documents/large@0.bin")) << "the cancelled copy stands under its version name";
}

TEST(EngineTrustTest, AClientCancellingFromInsideStartedTransferTallyIsAnsweredAndTheEngineServesMeanwhile) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus("3000", "300M", 1ull << 30);
  const std::string uid = bus.manage();
  const Outcome probe = bus.probe(bus.ann, {"cancel-in-callback", uid});
  ASSERT_EQ(probe.status, 0) << probe.output;
  const long heartbeatMs = numberAfter(probe.output, "heartbeat");
  EXPECT_GE(heartbeatMs, 0) << probe.output;
  EXPECT_LT(heartbeatMs, 100) << probe.output;
  EXPECT_NE(probe.output.find("outcome cancelled"), std::string::npos) << probe.output;
  EXPECT_TRUE(tornOrTemporary(bus.disk->mountPoint() + "/qs skerrow.skstor/" + uid, "", 0).empty());
}

// The engine's policy without its root-only rules: what the engine itself
// refuses, as on a bus whose policy lets every call through.
std::string policyWithoutRootOnlyRules(const skerrow_test::TempDir& dir) {
  std::ifstream in(SKERROW_POLICY_FILE);
  std::string policy, line;
  size_t dropped = 0;
  while (std::getline(in, line)) {
    if (line.find("send_member=") != std::string::npos) {
      ++dropped;
      continue;
    }
    policy += line + "\n";
  }
  EXPECT_EQ(dropped, 6u) << "the policy's root-only rules changed";
  const std::string path = dir.write("policy.conf", policy);
  fs::permissions(dir.path(), fs::perms(0755));
  return path;
}

TEST(EngineTrustTest, EveryServerOperationAsAnUnprivilegedUserChangesNothingItMayNotAndExitLeavesTheEngineRunning) {
  SKIP_WITHOUT_CLIENT_BUS();
  skerrow_test::TempDir policyDir;
  ClientBus bus("200", "4M", 256ull << 20, policyWithoutRootOnlyRules(policyDir));
  const std::string uid = bus.manage();
  const std::string bsdName = fs::path(bus.disk->loopDevice()).filename().string();
  for (const bool withService : {false, true}) {
    std::vector<std::string> arguments = {"server-ops", bsdName};
    if (withService) arguments.push_back("with-service");
    const Outcome bob = bus.probe(bus.bob, arguments);
    ASSERT_EQ(bob.status, 0) << bob.output;
    EXPECT_NE(bob.output.find("supportsContinuousBackup ok"), std::string::npos) << bob.output;
    EXPECT_NE(bob.output.find("setSupportsContinuousBackup error org.freedesktop.DBus.Error.AccessDenied"),
              std::string::npos)
        << bob.output;
    EXPECT_NE(bob.output.find("remountDriveWithBSDName error org.freedesktop.DBus.Error.AccessDenied"),
              std::string::npos)
        << bob.output;
    EXPECT_NE(bob.output.find("exit error org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << bob.output;
    // Bob has no backup: the database answers him nothing of ann's.
    EXPECT_NE(bob.output.find("db2 ok 0"), std::string::npos) << bob.output;
    EXPECT_TRUE(bus.engine->isRunning()) << bus.engine->logText();
  }
  // The engine itself refused them (this bus's policy let them through).
  EXPECT_NE(bus.engine->logText().find("Refused exit to uid 1501: it acts on the whole engine"), std::string::npos);
  // Nothing bob asked changed anything: continuous backup, ann's environments and backup are as they were.
  EXPECT_EQ(bus.engine->countLogLines("Disk " + bsdName + " appeared at " + bus.disk->mountPoint() + " (Backup)"),
            1u);
  const Outcome ann = bus.probe(bus.ann, {"server-ops", bsdName});
  EXPECT_NE(ann.output.find("db2 ok 1"), std::string::npos) << ann.output;
  EXPECT_NE(bus.annsList().find(uid), std::string::npos);
  EXPECT_TRUE(bus.engine->isRunning());
}

TEST(EngineTrustTest, TheBusPolicyRefusesTheRootOnlyOperationsToAUserBeforeTheEngineSeesThem) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const std::string bsdName = fs::path(bus.disk->loopDevice()).filename().string();
  const Outcome bob = bus.probe(bus.bob, {"server-ops", bsdName});
  ASSERT_EQ(bob.status, 0) << bob.output;
  for (const char* member : {"setSupportsContinuousBackup", "remountDriveWithBSDName", "exit"})
    EXPECT_NE(bob.output.find(std::string(member) + " error org.freedesktop.DBus.Error.AccessDenied"),
              std::string::npos)
        << bob.output;
  EXPECT_NE(bob.output.find("supportsContinuousBackup ok"), std::string::npos) << bob.output;
  // The bus stopped them: the engine never had to refuse.
  EXPECT_EQ(bus.engine->logText().find("Refused "), std::string::npos) << bus.engine->logText();
  EXPECT_TRUE(bus.engine->isRunning());
  // Root still may.
  auto root = bus.f.busctl({"call", "com.qsc.skerrow", "/com/qsc/skerrow", "com.qsc.skerrow.QSSkerrowServerProtocol",
                            "setSupportsContinuousBackup", "b", "true"});
  EXPECT_EQ(root.exitCode, 0) << root.output;
}

TEST(EngineTrustTest, ManagingTheRootFileSystemOrTheHomeFolderDiskAsAUserIsRefusedAndCreatesNothing) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  const Outcome refused = bus.run(bus.ann, {"manage", "/tmp"});
  EXPECT_NE(refused.status, 0) << refused.output;
  EXPECT_NE(refused.output.find("holds the system"), std::string::npos) << refused.output;
  EXPECT_FALSE(fs::exists("/qs skerrow.skstor")) << "a backup folder was put at the root of the system disk";
  EXPECT_EQ(bus.annsList().find("\"uid\""), std::string::npos);
}

TEST(EngineTrustTest, StartUpWithDeeplyNestedMetadataOnADiskServesAndLeavesTheFolderUnrecognised) {
  SKIP_WITHOUT_CLIENT_BUS();
  ClientBus bus;
  bus.engine->stop(10s);
  const std::string storage = bus.disk->mountPoint() + "/qs skerrow.skstor";
  const std::vector<std::pair<std::string, std::string>> hostile = {
      {"AAAAAAAA-0000-4000-8000-000000000001", skerrow_test::deepXmlPropertyList(100000)},
      {"AAAAAAAA-0000-4000-8000-000000000002", skerrow_test::deepXmlPropertyList(100000, "\n>")},
      {"AAAAAAAA-0000-4000-8000-000000000003", skerrow_test::deepBinaryPropertyList(100000)},
      {"AAAAAAAA-0000-4000-8000-000000000004", skerrow_test::deepBinaryPropertyList(1000000)},
  };
  for (const auto& [uid, contents] : hostile) {
    fs::create_directories(storage + "/" + uid);
    std::ofstream(storage + "/" + uid + "/.com.qsc.backupinfo", std::ios::binary) << contents;
  }
  auto& engine = bus.f.startEngine({"-noRealtime"});
  ASSERT_TRUE(engine.waitForLogLine("sconnection configured...", 30s)) << engine.logText();
  // It serves, adopts none of the folders, and says why for each.
  const Outcome ann = bus.probe(bus.ann, {"server-ops", "none"});
  EXPECT_NE(ann.output.find("supportsContinuousBackup ok"), std::string::npos) << ann.output;
  EXPECT_NE(ann.output.find("db2 ok 0"), std::string::npos) << ann.output;
  for (const auto& [uid, contents] : hostile)
    EXPECT_TRUE(engine.waitForLogLine("The backup folder " + storage + "/" + uid +
                                          " is not recognised: its metadata file nests arrays or dictionaries "
                                          "deeper than 256 levels",
                                      1s))
        << uid << "\n"
        << engine.logText();
  EXPECT_TRUE(engine.isRunning());
}

TEST(EngineTrustTest, StartUpWithADeeplyNestedDatabaseServesAndKeepsTheFileAside) {
  SKIP_WITHOUT_CLIENT_BUS();
  for (const std::string& contents :
       {skerrow_test::deepXmlPropertyList(100000), skerrow_test::deepBinaryPropertyList(1000000)}) {
    ClientBus bus;
    bus.engine->stop(10s);
    const std::string store = bus.f.storeRoot() + "/Library/Application Support/Vornhalden/";
    fs::create_directories(store);
    std::ofstream(store + "backupdb.plist", std::ios::binary) << contents;
    auto& engine = bus.f.startEngine({"-noRealtime"});
    ASSERT_TRUE(engine.waitForLogLine("sconnection configured...", 30s)) << engine.logText();
    EXPECT_TRUE(engine.waitForLogLine("cannot be read: it nests arrays or dictionaries deeper than 256 levels", 1s))
        << engine.logText();
    // It serves: a new backup is made and saved, the hostile file kept aside first.
    const std::string uid = bus.manage();
    EXPECT_EQ(uid.size(), 36u);
    EXPECT_TRUE(engine.waitForLogLine("Kept the unreadable backup database as ", 5s)) << engine.logText();
    EXPECT_TRUE(engine.isRunning());
  }
}

TEST(EngineTrustTest, TheDatabaseTheEngineWritesIsReadByPythonsPlistlib) {
  SKIP_WITHOUT_CLIENT_BUS();
  if (skerrow_test::runCommand({"python3", "-c", "import plistlib"}).exitCode != 0)
    GTEST_SKIP() << "python3 with plistlib is not installed";
  ClientBus bus;
  const std::string uid = bus.manage();
  ASSERT_EQ(bus.run(bus.ann, {"backup"}).status, 0);
  const std::string store = bus.f.storeRoot() + "/Library/Application Support/Vornhalden/";
  for (const char* file : {"backupdb.plist", "backupoutcomes.plist"}) {
    const auto read = skerrow_test::runCommand(
        {"python3", "-c",
         "import plistlib, sys; d = plistlib.load(open(sys.argv[1], 'rb')); print(sorted(d.keys()))",
         store + file});
    EXPECT_EQ(read.exitCode, 0) << file << ": " << read.output;
    if (std::string(file) == "backupdb.plist")
      EXPECT_NE(read.output.find("'managed-backups', 'managed-users'"), std::string::npos) << read.output;
    else
      EXPECT_NE(read.output.find(uid), std::string::npos) << read.output;
  }
}

TEST(EngineTrustTest, FailedCopiesTheStopAndTheSummaryOfABackupReachTheJournalWithItsUID) {
  SKIP_WITHOUT_CLIENT_BUS();
  if (auto reason = skerrow_test::JournalDaemon::unavailableReason()) GTEST_SKIP() << *reason;
  skerrow_test::JournalDaemon journal;
  // 60 MiB of home for a disk of 40 MiB: copies fail once it is full.
  ClientBus bus("300", "60M", 40ull << 20);
  const std::string uid = bus.manage();
  const Outcome backup = bus.run(bus.ann, {"backup", "--max-errors", "3"});
  EXPECT_EQ(backup.status, 3) << backup.output;
  const auto entries = journal.entries("SKERROW_BACKUP_UID=" + uid);
  size_t failures = 0, stops = 0, summaries = 0;
  for (const std::string& entry : entries) {
    if (entry.find("\"PRIORITY\":\"4\"") != std::string::npos &&
        entry.find("could not copy") != std::string::npos && entry.find("\"SKERROW_PATH\":\"" + bus.ann.home) !=
        std::string::npos && entry.find("No space left on device") != std::string::npos)
      ++failures;
    if (entry.find("\"PRIORITY\":\"3\"") != std::string::npos &&
        entry.find("stopped after 5 failed copies in a row") != std::string::npos)
      ++stops;
    if (entry.find("\"SKERROW_OUTCOME\":\"stopped\"") != std::string::npos) ++summaries;
  }
  EXPECT_GE(failures, 4u) << entries.size() << " entries";
  EXPECT_EQ(stops, 1u);
  EXPECT_EQ(summaries, 1u);
}
