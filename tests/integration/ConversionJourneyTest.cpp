// A person's journey with the older product's backups: the real skerrowd on
// a private bus, a loop-mounted ext4 disk holding what the older product
// left (two users, all six categories, 2,000 files with up to five versions
// each), and the real skerrowctl of each user following the conversion as
// the disk is plugged in.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
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

constexpr const char* kStates[] = {
    "QS Tidevault - WillPerformPathExamination", "QS Tidevault - DidPerformPathExamination",
    "QS Tidevault - WillPerformPathReassignment", "QS Tidevault - DidPerformPathReassignment",
    "QS Tidevault - WillPerformPathMovement",    "QS Tidevault - DidPerformPathMovement",
    "qs skerrow.skstor",
};

std::vector<std::string> jsonStates(const std::string& output) {
  static const std::regex state("\"event\":\"state\",\"mountPath\":\"[^\"]*\",\"state\":\"([^\"]*)\"");
  std::vector<std::string> states;
  for (auto it = std::sregex_iterator(output.begin(), output.end(), state); it != std::sregex_iterator(); ++it)
    states.push_back((*it)[1]);
  return states;
}

std::vector<std::string> uidsIn(const std::string& text) {
  static const std::regex uid("\"uid\":\"([0-9A-F-]{36})\"");
  std::vector<std::string> uids;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), uid); it != std::sregex_iterator(); ++it)
    uids.push_back((*it)[1]);
  return uids;
}

// The database's entries by uid.
std::map<std::string, std::shared_ptr<QSBackupEntry>> savedBackups(const std::string& store) {
  std::map<std::string, std::shared_ptr<QSBackupEntry>> entries;
  const auto saved = platform::PropertyList::readFile(store + kBackupDatabaseFile);
  const platform::Dictionary* root = saved ? saved->asDictionary() : nullptr;
  const platform::Value* backups = root ? root->find("managed-backups") : nullptr;
  if (!backups || !backups->asArray()) return entries;
  for (const platform::Value& archive : *backups->asArray())
    if (const auto* fields = archive.asDictionary()) {
      auto entry = QSBackupEntry::initWithArchive(*fields);
      entries[entry->uid()] = entry;
    }
  return entries;
}

TEST(ConversionJourney, TwoUsersSeeTheirOlderBackupsConvertedAdoptedAndBackedUpWithoutCopyingAgain) {
  if (auto reason = BackupScenario::unavailableReason()) GTEST_SKIP() << *reason;
  EngineFixture f;
  const TestUser& ann = f.users().addUser("ann", 1500, 1500, "Ann Example");
  const TestUser& bob = f.users().addUser("bob", 1501, 1501, "Bob Example");
  FileSystemImage disk(FileSystemImage::Kind::Ext4, 512ull << 20, FileSystemImageOptions{.label = "OldBackups"});
  std::filesystem::permissions(disk.folder(), std::filesystem::perms(0755));
  const std::string volume = disk.mountPoint();
  const std::string manifestPath = disk.folder() + "/manifest.tsv";

  // What the older product left, and the homes as they are today (the newest versions).
  const CommandResult made =
      makeLegacyLayout({"--user", "ann=" + ann.home, "--user", "bob=" + bob.home, "--files", "1000",
                        "--max-versions", "5", "--bytes", "6000", "--write-homes", "--manifest", manifestPath, volume});
  ASSERT_EQ(made.exitCode, 0) << made.output;
  runCommand({"chown", "-R", "-h", "1500:1500", ann.home});
  runCommand({"chown", "-R", "-h", "1501:1501", bob.home});
  const LegacyManifest manifest = LegacyManifest::read(manifestPath);
  ASSERT_EQ(manifest.users.size(), 2u);
  std::set<std::string> files;
  for (const auto& v : manifest.versions) files.insert(v.user + "/" + v.folder + "/" + v.name);
  ASSERT_EQ(files.size(), 2000u);
  // Legacy paths are <computer>/<user>/<category>/...: every category holds files.
  std::set<std::string> categories;
  for (const auto& v : manifest.versions) {
    std::stringstream parts(v.legacyPath);
    std::string part;
    for (int i = 0; i < 3; ++i) std::getline(parts, part, '/');
    categories.insert(part);
  }
  EXPECT_EQ(categories, (std::set<std::string>{"Documents", "Mail", "Movies", "Music", "Other", "Pictures"}));
  EXPECT_GE(manifest.versions.size(), 4000u);

  // The disk is out while the engine starts and the users start following.
  disk.unmount();
  DaemonProcess& engine = f.startEngine({"-noSchedule", "-noRealtime"});
  std::vector<std::unique_ptr<DaemonProcess>> followers;
  for (const TestUser* user : {&ann, &bob}) {
    DaemonProcessOptions options;
    options.environment = f.clientEnvironment();
    options.runAs = RunAs{user->uid, user->gid};
    options.workingDirectory = "/";
    followers.push_back(std::make_unique<DaemonProcess>(
        SKERROWCTL_PATH, std::vector<std::string>{"--json", "conversion", volume, "--wait", "120"}, options));
  }
  for (auto& follower : followers) ASSERT_TRUE(follower->waitForLogLine("\"event\":\"waiting\"", 30s)) << follower->logText();

  // The disk is plugged in.
  disk.mountAgain();
  std::map<std::string, std::string> uidOf;
  for (size_t i = 0; i < followers.size(); ++i) {
    const std::string name = i == 0 ? "ann" : "bob";
    ASSERT_EQ(followers[i]->waitForExit(180s).value_or(-1), 0) << followers[i]->logText();
    const std::string output = followers[i]->logText();
    // Every state, in order, once each.
    EXPECT_EQ(jsonStates(output), std::vector<std::string>(std::begin(kStates), std::end(kStates))) << output;
    const std::string end = output.substr(output.find("\"event\":\"end\""));
    const auto uids = uidsIn(end);
    ASSERT_EQ(uids.size(), 1u) << "each user sees the one backup made for them: " << output;
    uidOf[name] = uids[0];
    EXPECT_NE(end.find("\"scheduled\":true,\"persistent\":true"), std::string::npos) << end;
  }
  ASSERT_NE(uidOf["ann"], uidOf["bob"]);

  // On the disk: one folder per user named by its new upper-case uid, every
  // version under its new name with its bytes and date, the lists as said,
  // the legacy folder in the trash.
  const std::string storage = volume + "/qs skerrow.skstor";
  std::set<std::string> folders;
  for (const auto& entry : std::filesystem::directory_iterator(storage))
    if (entry.is_directory()) folders.insert(entry.path().filename().string());
  EXPECT_EQ(folders, (std::set<std::string>{uidOf["ann"], uidOf["bob"]}));
  for (const auto& [name, uid] : uidOf) {
    EXPECT_TRUE(std::regex_match(uid, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-1[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}"))) << uid;
    const auto info = platform::PropertyList::readFile(storage + "/" + uid + "/.com.qsc.backupinfo");
    ASSERT_TRUE(info && info->isDictionary()) << uid;
    const platform::Dictionary& list = *info->asDictionary();
    const TestUser& user = name == "ann" ? ann : bob;
    EXPECT_EQ(*list.find("backup-uid")->asString(), uid);
    EXPECT_EQ(*list.find("source-format")->asString(), "hfs+");
    EXPECT_EQ(*list.find("home")->asString(), user.home);
    EXPECT_EQ(*list.find("long-name")->asString(), user.fullName);
    EXPECT_EQ(*list.find("short-name")->asString(), name);
    EXPECT_TRUE(list.find("completion-date") && list.find("completion-date")->isDate());
    EXPECT_EQ(list.find("period")->doubleValue(), 3600.0);
    EXPECT_TRUE(list.find("scheduled")->boolValue());
    EXPECT_EQ(list.find("version-depth")->int64Value(), 4);
    EXPECT_FALSE(list.find("exclusion-filter-directory"));
    ASSERT_TRUE(list.find("managed-categories") && list.find("managed-categories")->isArray());
    EXPECT_EQ(list.find("managed-categories")->asArray()->size(), 6u);
    ASSERT_TRUE(list.find("machine"));
  }
  const LegacyCheck check = checkLegacyVersions(volume, manifest);
  EXPECT_TRUE(check.allConverted()) << check.summary();
  EXPECT_EQ(check.converted, manifest.versions.size());
  EXPECT_FALSE(std::filesystem::exists(volume + "/QS Tidevault"));
  EXPECT_FALSE(std::filesystem::exists(volume + "/qs skerrow.skstor - IsPerformingPathMovement"));
  EXPECT_TRUE(std::filesystem::is_directory(volume + "/.Trash-0/files/QS Tidevault - DidPerformPathMovement"));
  EXPECT_TRUE(std::filesystem::exists(volume + "/.Trash-0/info/QS Tidevault - DidPerformPathMovement.trashinfo"));
  EXPECT_FALSE(std::filesystem::exists(storage + "/.vessaToQSConversionNewBackups")) << "adopted: no longer recorded";

  // Adopted: each user lists the backup as theirs, and the database keeps both.
  for (const TestUser* user : {&ann, &bob}) {
    DaemonProcessOptions options;
    options.environment = f.clientEnvironment();
    options.runAs = RunAs{user->uid, user->gid};
    options.workingDirectory = "/";
    DaemonProcess list(SKERROWCTL_PATH, {"--json", "list"}, options);
    ASSERT_EQ(list.waitForExit(60s).value_or(-1), 0) << list.logText();
    const std::string uid = uidOf[user->name];
    EXPECT_NE(list.logText().find("\"uid\":\"" + uid + "\""), std::string::npos) << list.logText();
    EXPECT_EQ(uidsIn(list.logText()).size(), 1u) << list.logText();
  }
  const auto adopted = savedBackups(f.storeRoot() + "/Library/Application Support/Vornhalden/");
  ASSERT_EQ(adopted.size(), 2u);
  for (const auto& [name, uid] : uidOf) {
    ASSERT_TRUE(adopted.count(uid));
    EXPECT_TRUE(adopted.at(uid)->isScheduled());
    EXPECT_EQ(adopted.at(uid)->shortUserName(), name);
  }

  // The next scheduled pass backs both up and copies nothing again.
  const auto before = regularFilesBelow(storage);
  const double convertedAt = platform::Date::now().timeIntervalSinceReferenceDate();
  ASSERT_TRUE(eventually(
      [&] {
        const auto saved = savedBackups(f.storeRoot() + "/Library/Application Support/Vornhalden/");
        for (const auto& [name, uid] : uidOf)
          if (!saved.count(uid) || saved.at(uid)->completionDate().timeIntervalSinceReferenceDate() < convertedAt)
            return false;
        return true;
      },
      120s))
      << engine.logText();
  const auto after = regularFilesBelow(storage);
  size_t unchanged = 0;
  for (const auto& [path, stored] : before) {
    if (path.find(".com.qsc.backupinfo") != std::string::npos || path.find(".vessaToQSConversion") != std::string::npos)
      continue;
    ASSERT_TRUE(after.count(path)) << path;
    EXPECT_EQ(after.at(path).inode, stored.inode) << path;
    ++unchanged;
  }
  size_t added = 0;
  for (const auto& [path, stored] : after)
    if (!before.count(path) && path.find(".com.qsc.backupinfo") == std::string::npos) ++added;
  EXPECT_EQ(added, 0u) << "the pass copied files again";
  EXPECT_EQ(unchanged, manifest.versions.size());
  EXPECT_NE(engine.logText().find("Starting UNSCHEDULED backup for " + uidOf["ann"]), std::string::npos);
}

TEST(ConversionJourney, AFullDiskIsLeftUntouchedAndItsUserIsToldWhyUntilThereIsRoom) {
  if (auto reason = BackupScenario::unavailableReason()) GTEST_SKIP() << *reason;
  EngineFixture f;
  const TestUser& ann = f.users().addUser("ann", 1500, 1500, "Ann Example");
  FileSystemImage disk(FileSystemImage::Kind::Ext4, 64ull << 20, FileSystemImageOptions{.label = "OldBackups"});
  std::filesystem::permissions(disk.folder(), std::filesystem::perms(0755));
  const std::string volume = disk.mountPoint();
  const CommandResult made = makeLegacyLayout(
      {"--user", "ann=" + ann.home, "--files", "40", "--manifest", disk.folder() + "/manifest.tsv", volume});
  ASSERT_EQ(made.exitCode, 0) << made.output;
  const LegacyManifest manifest = LegacyManifest::read(disk.folder() + "/manifest.tsv");
  // Fill the disk but for 8 KiB: less than a new backup's folder and information list.
  struct statvfs vfs {};
  ASSERT_EQ(::statvfs(volume.c_str(), &vfs), 0);
  const uint64_t free = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
  ASSERT_EQ(runCommand({"fallocate", "-l", std::to_string(free - 8192), volume + "/filler"}).exitCode, 0);
  disk.unmount();

  f.startEngine({"-noSchedule", "-noRealtime"});
  DaemonProcessOptions options;
  options.environment = f.clientEnvironment();
  options.runAs = RunAs{ann.uid, ann.gid};
  options.workingDirectory = "/";
  auto follow = [&] {
    return std::make_unique<DaemonProcess>(SKERROWCTL_PATH,
                                           std::vector<std::string>{"conversion", volume, "--wait", "60"}, options);
  };
  auto refused = follow();
  ASSERT_TRUE(refused->waitForLogLine("Waiting up to 60 s", 30s)) << refused->logText();
  disk.mountAgain();
  EXPECT_EQ(refused->waitForExit(90s).value_or(-1), 1) << refused->logText();
  const std::string said = refused->logText();
  EXPECT_NE(said.find(volume + ": QS Tidevault - NotConverted: the volume has "), std::string::npos) << said;
  EXPECT_NE(said.find("bytes free and the conversion needs"), std::string::npos) << said;
  EXPECT_NE(said.find("No new backup of yours"), std::string::npos) << said;
  // Untouched: the legacy folder as it was, nothing new.
  EXPECT_TRUE(std::filesystem::is_directory(volume + "/QS Tidevault"));
  EXPECT_FALSE(std::filesystem::exists(volume + "/QS Tidevault/.vessaToQSConversionStateInfo"));
  EXPECT_FALSE(std::filesystem::exists(volume + "/qs skerrow.skstor"));
  EXPECT_EQ(checkLegacyVersions(volume, manifest).inLegacyTree, manifest.versions.size());

  // With room made, the next time the disk is plugged in it is converted.
  std::filesystem::remove(volume + "/filler");
  disk.unmount();
  auto converted = follow();
  ASSERT_TRUE(converted->waitForLogLine("Waiting up to 60 s", 30s)) << converted->logText();
  disk.mountAgain();
  EXPECT_EQ(converted->waitForExit(90s).value_or(-1), 0) << converted->logText();
  EXPECT_NE(converted->logText().find("Conversion on " + volume + " ended: qs skerrow.skstor"), std::string::npos)
      << converted->logText();
  EXPECT_NE(converted->logText().find("New backups:"), std::string::npos) << converted->logText();
  const LegacyCheck check = checkLegacyVersions(volume, manifest);
  EXPECT_TRUE(check.allConverted()) << check.summary();
}

}  // namespace
