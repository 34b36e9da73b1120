// The server's table of backups: the database file, disks coming and
// going, environments of managed backups, the end of conversions and the
// per-user exclusion filter.
#include <gtest/gtest.h>

#include <filesystem>

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/Log.h"
#include "platform/ManualRunLoop.h"
#include "platform/PropertyList.h"
#include "platform/Workspace.h"
#include "tests/support/RecordingClient.h"
#include "tests/support/ServerFixture.h"
#include "tests/support/VolumeFixture.h"

using skerrow_test::RecordingClient;
using skerrow_test::ServerFixture;

namespace {

platform::Dictionary readDatabase(const ServerFixture& f) {
  const auto root = platform::PropertyList::readFile(f.server->backupDatabasePath());
  return root && root->asDictionary() ? *root->asDictionary() : platform::Dictionary();
}

size_t savedBackups(const ServerFixture& f) {
  const platform::Dictionary db = readDatabase(f);
  const platform::Value* backups = db.find("managed-backups");
  return backups && backups->asArray() ? backups->asArray()->size() : SIZE_MAX;
}

}  // namespace

TEST(QSSkerrowServerTableTest, SavingWithNoPersistentEntriesWritesAnEmptyBackupListAndStillTheUsers) {
  ServerFixture f;
  EXPECT_TRUE(f.server->saveBackupDatabase());
  const platform::Dictionary db = readDatabase(f);
  ASSERT_NE(db.find("managed-backups"), nullptr);
  ASSERT_TRUE(db.find("managed-backups")->isArray());
  EXPECT_TRUE(db.find("managed-backups")->asArray()->empty());
  ASSERT_NE(db.find("managed-users"), nullptr);
  EXPECT_TRUE(db.find("managed-users")->isDictionary());
  EXPECT_EQ(db.size(), 2u);
  EXPECT_EQ(f.log.count("Server did save to permanent store: 1"), 1u);
}

TEST(QSSkerrowServerTableTest, TransientEntryNeverReachesTheDatabaseFile) {
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  f.putBackupOnDisk(disk, "UID-T", "ann");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  ASSERT_NE(f.server->backupEntryWithUID("UID-T"), nullptr);
  EXPECT_FALSE(f.server->backupEntryWithUID("UID-T")->isPersistent());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(f.server->saveBackupDatabase());
  EXPECT_EQ(savedBackups(f), 0u);
}

TEST(QSSkerrowServerTableTest, AfterAnUnmountDb2ForgetsTheVolumeAndAPersistentEntryKeepsEmptyMountData) {
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  f.putBackupOnDisk(disk, "UID-P", "ann");
  f.putBackupOnDisk(disk, "UID-T", "ann");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  f.server->backupEntryWithUID("UID-P")->setPersistent(true);
  EXPECT_EQ(f.server->db2().size(), 2u);

  f.server->diskDidDisapperAtMountPoint(disk);
  EXPECT_TRUE(f.server->db2().empty());
  const auto persistent = f.server->backupEntryWithUID("UID-P");
  ASSERT_NE(persistent, nullptr);
  EXPECT_EQ(persistent->mountPoint(), "");
  EXPECT_EQ(persistent->BSDName(), "");
  EXPECT_EQ(persistent->volumeName(), "");
  EXPECT_EQ(f.server->backupEntryWithUID("UID-T"), nullptr);
}

TEST(QSSkerrowServerTableTest, DiskWithoutAStorageFolderIsScannedWithoutEffectButAConverterIsStarted) {
  ServerFixture f;
  const std::string disk = f.disk("Empty");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdc1", disk, "Empty");
  EXPECT_TRUE(f.server->backupUIDs().empty());
  ASSERT_EQ(f.converters.size(), 1u);
  EXPECT_EQ(f.converters[0]->mountPoint(), disk);
  EXPECT_TRUE(f.converters[0]->started);
  EXPECT_EQ(f.server->activeConverterCount(), 1u);
}

TEST(QSSkerrowServerTableTest, NoConverterIsStartedWithoutAConverterFactory) {
  ServerFixture::Options options;
  options.withConverters = false;
  ServerFixture f(options);
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdc1", f.disk("Empty"), "Empty");
  EXPECT_EQ(f.server->activeConverterCount(), 0u);
}

TEST(QSSkerrowServerTableTest, UIDFolderWhoseMetadataNamesAnotherUIDIsIgnored) {
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  f.putBackupOnDisk(disk, "UID-A", "ann");
  std::filesystem::rename(f.storage(disk) + "/UID-A", f.storage(disk) + "/UID-B");
  f.dir.write("media/Backup/qs skerrow.skstor/plain-file", "x");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  EXPECT_TRUE(f.server->backupUIDs().empty());
}

TEST(QSSkerrowServerTableTest, UnmountNoticeMatchesAnEntryMountedAtTheSamePathInOtherLetterCase) {
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  f.putBackupOnDisk(disk, "UID-T", "ann");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  std::string upper = disk;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  platform::Notification unmount;
  unmount.name = platform::NSWorkspaceDidUnmountNotification;
  unmount.userInfo.set(platform::kNSDevicePathKey, platform::Value(upper));
  f.workspace.post(unmount);
  EXPECT_EQ(f.server->backupEntryWithUID("UID-T"), nullptr);
}

TEST(QSSkerrowServerTableTest, RemountOfABSDNameThatIsNotMountedAnswersFalseAndChangesNothing) {
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  f.putBackupOnDisk(disk, "UID-T", "ann");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  EXPECT_FALSE(f.server->remountDriveWithBSDName("nosuchdisk9"));
  ASSERT_NE(f.server->backupEntryWithUID("UID-T"), nullptr);
  EXPECT_EQ(f.server->backupEntryWithUID("UID-T")->mountPoint(), disk);
  EXPECT_EQ(f.converters.size(), 1u);
}

TEST(QSSkerrowServerTableTest, ConversionThatReportsNoNewUIDsOnlyReleasesTheConverter) {
  ServerFixture f;
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdc1", f.disk("Old"), "Old");
  ASSERT_EQ(f.converters.size(), 1u);
  f.server->conversionDidFinishByConverter_withNewUIDs(f.converters[0], {});
  EXPECT_FALSE(f.converters[0]->released);  // handed to the main loop, not done on the converter's thread
  f.loop.runPending();
  EXPECT_TRUE(f.converters[0]->released);
  EXPECT_EQ(f.server->activeConverterCount(), 0u);
  EXPECT_TRUE(f.server->backupUIDs().empty());
  EXPECT_FALSE(f.log.contains("Server did save to permanent store"));
}

TEST(QSSkerrowServerTableTest, ConversionWithNewUIDsAdoptsSchedulesSavesAndMakesTheEnvironment) {
  skerrow_test::VolumeFixture volumes;
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  volumes.addDisk("sdb", 8, 16, "devices/pci0000:00/usb1", "Ultra Fit", 0);
  volumes.addPartition("sdb", "sdb1", 8, 17);
  volumes.setLabel("sdb1", "Backup");
  volumes.setMountTable({skerrow_test::VolumeFixture::line(40, "8:17", disk, "ext4", "/dev/sdb1")});
  skerrow_test::VolumeServiceScope scope(volumes.service());

  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  // The converter leaves a converted backup with an exclusion expression.
  auto converted = f.putBackupOnDisk(disk, "UID-C", "ann", {kDocumentsCategoryIdentifier}, "(.*/)?cache");
  f.server->conversionChangedState_forMountPath("converting", disk);
  f.server->conversionDidFinishByConverter_withNewUIDs(f.converters.at(0), {"UID-C", "UID-unknown"});
  f.loop.runPending();
  const auto entry = f.server->backupEntryWithUID("UID-C");
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->isPersistent());
  EXPECT_TRUE(entry->isScheduled());
  EXPECT_EQ(f.server->exclusionFilterMap().at("ann"), "(.*/)?cache");
  EXPECT_EQ(savedBackups(f), 1u);
  EXPECT_NE(f.server->secondStage()->environmentForUID("UID-C"), nullptr);
  EXPECT_TRUE(f.converters[0]->released);
  EXPECT_EQ(f.server->activeConverterCount(), 0u);
}

TEST(QSSkerrowServerTableTest, TheConverterLearnsWhichNewBackupsWereAdoptedBeforeItIsReleased) {
  skerrow_test::VolumeFixture volumes;
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  volumes.addDisk("sdb", 8, 16, "devices/pci0000:00/usb1", "Ultra Fit", 0);
  volumes.addPartition("sdb", "sdb1", 8, 17);
  volumes.setLabel("sdb1", "Backup");
  volumes.setMountTable({skerrow_test::VolumeFixture::line(40, "8:17", disk, "ext4", "/dev/sdb1")});
  skerrow_test::VolumeServiceScope scope(volumes.service());
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  f.putBackupOnDisk(disk, "UID-C", "ann");
  f.server->conversionDidFinishByConverter_withNewUIDs(f.converters.at(0), {"UID-C", "UID-unknown"});
  f.loop.runPending();
  EXPECT_EQ(f.converters[0]->adopted, std::vector<std::string>{"UID-C"});
  EXPECT_TRUE(f.converters[0]->released);
}

TEST(QSSkerrowServerTableTest, TheEndOfAnOlderConverterLeavesTheConverterOfTheDiskMountedAgain) {
  ServerFixture f;
  const std::string disk = f.disk("Old");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdc1", disk, "Old");
  f.server->diskDidDisapperAtMountPoint(disk);
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdc1", disk, "Old");
  ASSERT_EQ(f.converters.size(), 2u);
  f.server->conversionDidFinishByConverter_withNewUIDs(f.converters[0], {});
  f.loop.runPending();
  EXPECT_TRUE(f.converters[0]->released);
  EXPECT_EQ(f.server->activeConverterCount(), 1u);
  EXPECT_EQ(f.server->conversionStateForMountPath(disk), platform::Value("scanning"));
  f.server->conversionDidFinishByConverter_withNewUIDs(f.converters[1], {});
  f.loop.runPending();
  EXPECT_EQ(f.server->activeConverterCount(), 0u);
  EXPECT_EQ(f.server->conversionStateForMountPath(disk), std::nullopt);
}

TEST(QSSkerrowServerTableTest, StoppingTheConvertersCancelsEachRunningOne) {
  ServerFixture f;
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdc1", f.disk("A"), "A");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdd1", f.disk("B"), "B");
  ASSERT_EQ(f.converters.size(), 2u);
  EXPECT_TRUE(f.server->stopConverters(std::chrono::milliseconds(100)));
  EXPECT_TRUE(f.converters[0]->cancelled);
  EXPECT_TRUE(f.converters[1]->cancelled);
}

TEST(QSSkerrowServerTableTest, JobsIsAlwaysAnEmptyDictionary) {
  ServerFixture f;
  EXPECT_TRUE(f.server->jobs().empty());
  f.putBackupOnDisk(f.disk("Backup"), "UID-T", "ann");
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", f.disk("Backup"), "Backup");
  EXPECT_TRUE(f.server->jobs().empty());
}

TEST(QSSkerrowServerTableTest, DatabaseRoundTripGivesPersistentUnmountedEntriesAndTheUsersFilters) {
  skerrow_test::TempDir root;
  {
    ServerFixture f(ServerFixture::Options::atRoot(root.path()));
    auto entry = QSBackupEntry::initWithUID("UID-P");
    entry->setShortUserName("ann");
    entry->setPersistent(true);
    entry->setMountPoint("/media/x");
    entry->setVersionDepth(4);
    f.server->setBackupEntry_forUID(entry, "UID-P");
    f.server->setPathSuffixExclusionFilter_forClient("(.*/)?tmp", std::make_shared<RecordingClient>("ann", f.annHome));
  }
  ServerFixture again(ServerFixture::Options::atRoot(root.path()));
  const auto entry = again.server->backupEntryWithUID("UID-P");
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->isPersistent());
  EXPECT_EQ(entry->mountPoint(), "");
  EXPECT_EQ(entry->versionDepth(), 4u);
  EXPECT_EQ(again.server->exclusionFilterMap().at("ann"), "(.*/)?tmp");
}

TEST(QSSkerrowServerTableTest, UnreadableDatabaseLeavesTheTablesEmptyAndIsKeptAsideBeforeTheNextSave) {
  skerrow_test::TempDir root;
  const std::string store = root / "Library/Application Support/Vornhalden";
  std::filesystem::create_directories(store);
  root.write("Library/Application Support/Vornhalden/backupdb.plist", "<?xml version=\"1.0\"?><plist><dict><key>");
  ServerFixture f(ServerFixture::Options::atRoot(root.path()));
  EXPECT_TRUE(f.server->backupUIDs().empty());
  EXPECT_TRUE(f.log.contains("cannot be read"));
  EXPECT_TRUE(f.server->saveBackupDatabase());
  std::string aside;
  for (const auto& item : std::filesystem::directory_iterator(store))
    if (item.path().filename().string().rfind("backupdb.plist.unreadable-", 0) == 0) aside = item.path();
  ASSERT_FALSE(aside.empty());
  EXPECT_TRUE(f.log.contains("Kept the unreadable backup database as " + aside));
  EXPECT_EQ(root.read(aside.substr(root.path().size() + 1)), "<?xml version=\"1.0\"?><plist><dict><key>");
  EXPECT_EQ(savedBackups(f), 0u);
}

TEST(QSSkerrowServerTableTest, PersistentEntryOnAMountedDiskGetsItsSecondStageEnvironment) {
  ServerFixture f;
  const std::string disk = f.disk("Backup");
  auto entry = f.adoptBackup(disk, "UID-P", "ann", {kDocumentsCategoryIdentifier, kMusicCategoryIdentifier});
  entry->setVersionDepth(3);
  f.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", disk, "Backup");
  EXPECT_TRUE(f.log.contains("created second stage environment for UID-P(ann)"));
  const auto environment = f.server->secondStage()->environmentForUID("UID-P");
  ASSERT_NE(environment, nullptr);
  EXPECT_EQ(environment->versionDepth(), 3u);
  ASSERT_NE(environment->destinationPath(), nullptr);
  EXPECT_EQ(*environment->destinationPath(), f.storage(disk) + "/UID-P");
  EXPECT_EQ(*environment->categoryFilter(), (std::set<std::string>{"Documents", "Music"}));
  EXPECT_EQ(*f.server->destinationPathForUID("UID-P"), f.storage(disk) + "/UID-P");
  f.server->diskDidDisapperAtMountPoint(disk);
  EXPECT_EQ(f.server->secondStage()->environmentForUID("UID-P"), nullptr);
  EXPECT_FALSE(f.server->destinationPathForUID("UID-P"));
}

TEST(QSSkerrowServerTableTest, SettingTheFilterToNothingRemovesTheUserFromTheDatabaseAtOnce) {
  ServerFixture f;
  auto ann = std::make_shared<RecordingClient>("ann", f.annHome);
  f.server->setPathSuffixExclusionFilter_forClient("(.*/)?build", ann);
  platform::Dictionary db = readDatabase(f);
  const platform::Value* users = db.find("managed-users");
  ASSERT_NE(users, nullptr);
  EXPECT_TRUE(users->asDictionary()->contains("ann"));
  EXPECT_EQ(*f.server->pathSuffixExclusionFilterForClient(ann), "(.*/)?build");
  ASSERT_NE(f.server->firstStage()->environmentForUser("ann")->exclusionFilter(), nullptr);

  f.server->setPathSuffixExclusionFilter_forClient(std::nullopt, ann);
  db = readDatabase(f);
  users = db.find("managed-users");
  ASSERT_NE(users, nullptr);
  EXPECT_FALSE(users->asDictionary()->contains("ann"));
  EXPECT_FALSE(f.server->pathSuffixExclusionFilterForClient(ann));
  EXPECT_EQ(f.server->firstStage()->environmentForUser("ann")->exclusionFilter(), nullptr);
}

TEST(QSSkerrowServerTableTest, InvalidFilterExpressionIsLoggedAndChangesNothing) {
  ServerFixture f;
  auto ann = std::make_shared<RecordingClient>("ann", f.annHome);
  const size_t linesBefore = f.log.lines().size();
  f.server->setPathSuffixExclusionFilter_forClient("(unclosed", ann);
  EXPECT_FALSE(f.server->pathSuffixExclusionFilterForClient(ann));
  EXPECT_EQ(f.server->firstStage()->environmentForUser("ann")->exclusionFilter(), nullptr);
  EXPECT_FALSE(f.log.contains("Server did save to permanent store"));
  ASSERT_EQ(f.log.lines().size(), linesBefore + 1);  // the reason the expression was refused
  EXPECT_FALSE(f.log.lines().back().empty());
}

TEST(QSSkerrowServerTableTest, FilterOfAUserWithoutEnvironmentChangesAndSavesNothing) {
  ServerFixture f;
  auto carl = std::make_shared<RecordingClient>("carl", "/home/carl");
  f.server->setPathSuffixExclusionFilter_forClient("x", carl);
  EXPECT_FALSE(f.server->pathSuffixExclusionFilterForClient(carl));
  EXPECT_FALSE(f.log.contains("Server did save to permanent store"));
}

TEST(QSSkerrowServerTableTest, StoredFiltersAreReinstalledAtStartUp) {
  skerrow_test::TempDir root;
  {
    ServerFixture f(ServerFixture::Options::atRoot(root.path()));
    f.server->setPathSuffixExclusionFilter_forClient("(.*/)?\\.cache(/.*)?",
                                                     std::make_shared<RecordingClient>("ann", f.annHome));
  }
  ServerFixture again(ServerFixture::Options::atRoot(root.path()));
  const auto filter = again.server->firstStage()->environmentForUser("ann")->exclusionFilter();
  ASSERT_NE(filter, nullptr);
  EXPECT_TRUE(filter->evaluateWithObject("projects/.cache/x"));
  EXPECT_FALSE(filter->evaluateWithObject("projects/src/x"));
}
