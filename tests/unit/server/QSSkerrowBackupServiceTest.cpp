#include "Engine/server/QSSkerrowBackupService.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/PropertyList.h"
#include "tests/support/RecordingClient.h"
#include "tests/support/ServerFixture.h"
#include "tests/support/VolumeFixture.h"

using skerrow_test::RecordingClient;
using skerrow_test::ServerFixture;
using skerrow_test::VolumeFixture;
using skerrow_test::VolumeServiceScope;

namespace {

constexpr const char* kSaved = "Server did save to permanent store: 1";

// An engine server, a disk "sdb1" mounted at a real folder ("Backups"), and
// services for ann and bob.
struct ServiceTest : ::testing::Test {
  ServiceTest() {
    volumes.addDisk("sdb", 8, 16);
    volumes.addPartition("sdb", "sdb1", 8, 17);
    volumes.setLabel("sdb1", "Backups", "1234-ABCD");
    volumes.setMountTable({VolumeFixture::line(40, "8:17", disk, "ext4", "/dev/sdb1")});
  }

  std::shared_ptr<QSSkerrowBackupService> serviceFor(const std::string& user) {
    auto client = std::make_shared<RecordingClient>(user, user == "bob" ? f.bobHome : f.annHome);
    clients.push_back(client);
    return QSSkerrowBackupService::initWithServer_client(f.server, client);
  }

  size_t saves() const { return f.log.count(kSaved); }

  ServerFixture f;
  VolumeFixture volumes;
  const std::string disk = f.disk("Backups");
  VolumeServiceScope scope{volumes.service()};
  std::vector<std::shared_ptr<RecordingClient>> clients;
};

size_t foldersIn(const std::string& path) {
  size_t n = 0;
  for (const auto& item : std::filesystem::directory_iterator(path)) n += item.is_directory() ? 1 : 0;
  return n;
}

}  // namespace

TEST_F(ServiceTest, TheServiceKeepsTheNamesItsClientGaveWhenItWasMade) {
  const auto service = serviceFor("ann");
  EXPECT_EQ(service->shortUserName(), "ann");
  EXPECT_EQ(service->longUserName(), "ann");
  EXPECT_EQ(service->userHome(), f.annHome);
  clients[0]->goAway();
  EXPECT_EQ(service->shortUserName(), "ann");
}

TEST_F(ServiceTest, StartManagingMakesTheFoldersTheMetadataAndTheEntry) {
  const auto service = serviceFor("ann");
  bool ok = false;
  const std::string uid = service->startManagingVolumeWithBSDName_didSucceed("sdb1", &ok);
  ASSERT_TRUE(ok);
  const std::string folder = ServerFixture::storage(disk) + "/" + uid;
  struct stat st;
  ASSERT_EQ(::lstat(folder.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  if (::geteuid() == 0) {
    EXPECT_EQ(st.st_uid, 1000u);
  }
  const auto metadata = platform::PropertyList::readFile(folder + "/" + kMetadataFileName);
  ASSERT_TRUE(metadata && metadata->isDictionary());
  const auto stored = QSBackupEntry::initWithBackupDirMetadata(*metadata->asDictionary());
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->uid(), uid);
  EXPECT_EQ(stored->shortUserName(), "ann");
  const auto entry = f.server->backupEntryWithUID(uid);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->BSDName(), "sdb1");
  EXPECT_EQ(entry->mountPoint(), disk);
  EXPECT_EQ(entry->volumeName(), "Backups");
  EXPECT_EQ(entry->userHome(), f.annHome);
  EXPECT_EQ(entry->machineName(), QSSkerrowServer::machineName());
  EXPECT_EQ(saves(), 1u);
  EXPECT_NE(f.server->secondStage()->environmentForUID(uid), nullptr);
}

// The engine's unit runs it with umask 0077; users must still reach their
// own backup folders through the disk's shared storage folder.
TEST_F(ServiceTest, TheStorageFolderIsReadableByEveryoneWhateverTheUmask) {
  const auto service = serviceFor("ann");
  const mode_t before = ::umask(0077);
  bool ok = false;
  const std::string uid = service->startManagingVolumeWithBSDName_didSucceed("sdb1", &ok);
  ::umask(before);
  ASSERT_TRUE(ok);
  struct stat st;
  ASSERT_EQ(::lstat(ServerFixture::storage(disk).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  ASSERT_EQ(::lstat((ServerFixture::storage(disk) + "/" + uid).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  ASSERT_EQ(::lstat((ServerFixture::storage(disk) + "/" + uid + "/" + kMetadataFileName).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0444, 0444u) << "the backup's metadata must stay readable by its user";
}

TEST_F(ServiceTest, ANewBackupIsPersistentUnscheduledWithPeriodZeroAndDepthZero) {
  const auto service = serviceFor("ann");
  const std::string uid = service->startManagingVolumeWithBSDName("sdb1");
  const auto entry = f.server->backupEntryWithUID(uid);
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->isPersistent());
  EXPECT_FALSE(entry->isScheduled());
  EXPECT_EQ(entry->period(), 0.0);
  EXPECT_EQ(entry->versionDepth(), 0u);
  EXPECT_EQ(service->periodForBackup(uid), 0.0);
  EXPECT_EQ(service->versionDepthForBackup(uid), 0u);
  EXPECT_FALSE(service->isScheduled(uid));
}

TEST_F(ServiceTest, StartManagingOnADiskWhoseStorageFolderExistsReusesItAndAddsOneBackupFolder) {
  const auto service = serviceFor("ann");
  const std::string first = service->startManagingVolumeWithBSDName("sdb1");
  ASSERT_EQ(foldersIn(ServerFixture::storage(disk)), 1u);
  bool ok = false;
  const std::string second = service->startManagingVolumeWithBSDName_didSucceed("sdb1", &ok);
  EXPECT_TRUE(ok);
  EXPECT_NE(first, second);
  EXPECT_EQ(foldersIn(ServerFixture::storage(disk)), 2u);
  EXPECT_EQ(foldersIn(disk), 1u);
  EXPECT_EQ(service->database().size(), 2u);
}

TEST_F(ServiceTest, BSDNamesThatAreNotMountedOrLookLikePathsCreateNothing) {
  const auto service = serviceFor("ann");
  for (const std::string& name : std::vector<std::string>{"", "sdz9", "sdb", "/dev/sdb1", "../..", "..", "sdb1/../..",
                                                        std::string(10000, 'x')}) {
    bool ok = true;
    const std::string uid = service->startManagingVolumeWithBSDName_didSucceed(name, &ok);
    EXPECT_FALSE(ok) << name;
    EXPECT_FALSE(uid.empty());
    EXPECT_EQ(f.server->backupEntryWithUID(uid), nullptr);
  }
  EXPECT_FALSE(std::filesystem::exists(ServerFixture::storage(disk)));
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ServiceTest, AStorageFolderThatIsALinkIsNotFollowed) {
  const std::string elsewhere = f.dir.mkdir("elsewhere");
  ASSERT_EQ(::symlink(elsewhere.c_str(), ServerFixture::storage(disk).c_str()), 0);
  const auto service = serviceFor("ann");
  bool ok = true;
  const std::string uid = service->startManagingVolumeWithBSDName_didSucceed("sdb1", &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(foldersIn(elsewhere), 0u);
  EXPECT_EQ(f.server->backupEntryWithUID(uid), nullptr);
}

TEST_F(ServiceTest, AMountPathThatIsNoLongerAFolderFails) {
  std::filesystem::remove(disk);
  const auto service = serviceFor("ann");
  bool ok = true;
  service->startManagingVolumeWithBSDName_didSucceed("sdb1", &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ServiceTest, TakeOverGuestBackupByAnotherUserOrOfAPersistentEntryChangesNothing) {
  auto guest = f.putBackupOnDisk(disk, "G-1", "ann");
  f.server->setBackupEntry_forUID(guest, "G-1");
  auto managed = f.adoptBackup(disk, "M-1", "ann");
  serviceFor("bob")->takeOverGuestBackup("G-1");
  EXPECT_FALSE(guest->isPersistent());
  const auto ann = serviceFor("ann");
  ann->takeOverGuestBackup("M-1");
  EXPECT_TRUE(managed->isPersistent());
  ann->takeOverGuestBackup("NO-SUCH");
  EXPECT_EQ(saves(), 0u);
  ann->takeOverGuestBackup("G-1");
  EXPECT_TRUE(guest->isPersistent());
  EXPECT_EQ(saves(), 1u);
  EXPECT_NE(f.server->secondStage()->environmentForUID("G-1"), nullptr);
}

TEST_F(ServiceTest, DatabaseForAUserWithoutBackupsIsEmpty) {
  auto entry = f.adoptBackup(disk, "A-1", "ann");
  entry->setMountPoint(disk);  // the database lists the backups on mounted disks
  entry->setBSDName("sdb1");
  entry->setVolumeName("Backups");
  EXPECT_TRUE(serviceFor("bob")->database().empty());
  const auto annsOwn = serviceFor("ann")->database();
  ASSERT_EQ(annsOwn.size(), 1u);
  EXPECT_EQ(annsOwn.begin()->first, "A-1");
}

TEST_F(ServiceTest, SetScheduledForAnUnknownCategoryChangesNoCategoryButStillSaves) {
  auto entry = f.adoptBackup(disk, "A-1", "ann", {"Documents"});
  const auto before = entry->scheduledCategories();
  serviceFor("ann")->setScheduled_forBackup_forCategory(true, "A-1", "NoSuchCategory");
  EXPECT_EQ(entry->scheduledCategories(), before);
  EXPECT_EQ(saves(), 1u);
}

TEST_F(ServiceTest, SettingsChangeTheEntryAndSave) {
  auto entry = f.adoptBackup(disk, "A-1", "ann", {"Documents"});
  const auto ann = serviceFor("ann");
  ann->setVersionDepth_forBackup(5, "A-1");
  ann->setPeriod_forBackup(7200, "A-1");
  ann->setScheduled_forBackup(false, "A-1");
  ann->setScheduled_forBackup_forCategory(true, "A-1", "Music");
  ann->setUserInfo_forBackup_forCategory(platform::Dictionary{{"colour", platform::Value("blue")}}, "A-1", "Music");
  EXPECT_EQ(ann->versionDepthForBackup("A-1"), 5u);
  EXPECT_EQ(ann->periodForBackup("A-1"), 7200.0);
  EXPECT_FALSE(ann->isScheduled("A-1"));
  EXPECT_TRUE(entry->scheduledCategories().count("Music"));
  const auto info = ann->userInfoForBackup_forCategory("A-1", "Music");
  ASSERT_TRUE(info.has_value());
  ASSERT_NE(info->find("colour"), nullptr);
  EXPECT_EQ(*info->find("colour"), platform::Value("blue"));
  EXPECT_EQ(saves(), 5u);
}

TEST_F(ServiceTest, UnknownBackupsAnswerNothingAndChangeNothing) {
  const auto ann = serviceFor("ann");
  for (const std::string& uid : std::vector<std::string>{"NO-SUCH", "", "../..", std::string(100000, 'u')}) {
    EXPECT_EQ(ann->versionDepthForBackup(uid), 0u);
    EXPECT_FALSE(ann->isScheduled(uid));
    EXPECT_EQ(ann->periodForBackup(uid), 0.0);
    EXPECT_FALSE(ann->userInfoForBackup_forCategory(uid, "Music").has_value());
    ann->setVersionDepth_forBackup(3, uid);
    ann->setPeriod_forBackup(3, uid);
    ann->setScheduled_forBackup(true, uid);
    ann->setScheduled_forBackup_forCategory(true, uid, "Music");
    ann->setUserInfo_forBackup_forCategory({}, uid, "Music");
    ann->takeOverGuestBackup(uid);
    EXPECT_FALSE(ann->stopManagingBackup(uid));
  }
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ServiceTest, AnotherUsersBackupIsNeitherReadNorChangedNorStopped) {
  auto entry = f.adoptBackup(disk, "A-1", "ann", {"Documents"});
  entry->setVersionDepth(4);
  entry->setPeriod(600);
  const auto bob = serviceFor("bob");
  EXPECT_EQ(bob->versionDepthForBackup("A-1"), 0u);
  EXPECT_EQ(bob->periodForBackup("A-1"), 0.0);
  EXPECT_FALSE(bob->isScheduled("A-1"));
  bob->setVersionDepth_forBackup(9, "A-1");
  bob->setPeriod_forBackup(1, "A-1");
  bob->setScheduled_forBackup(false, "A-1");
  bob->setScheduled_forBackup_forCategory(true, "A-1", "Music");
  bob->setUserInfo_forBackup_forCategory(platform::Dictionary{{"k", platform::Value("v")}}, "A-1", "Music");
  EXPECT_FALSE(bob->stopManagingBackup("A-1"));
  EXPECT_EQ(entry->versionDepth(), 4u);
  EXPECT_EQ(entry->period(), 600.0);
  EXPECT_TRUE(entry->isScheduled());
  EXPECT_EQ(entry->scheduledCategories(), std::set<std::string>{"Documents"});
  const auto info = serviceFor("ann")->userInfoForBackup_forCategory("A-1", "Music");
  EXPECT_TRUE(!info || !info->contains("k"));
  EXPECT_NE(f.server->backupEntryWithUID("A-1"), nullptr);
  EXPECT_EQ(saves(), 0u);
}

TEST_F(ServiceTest, StopManagingRemovesTheEntryAndSavesButLeavesTheBackupFolder) {
  const auto ann = serviceFor("ann");
  const std::string uid = ann->startManagingVolumeWithBSDName("sdb1");
  ASSERT_NE(f.server->secondStage()->environmentForUID(uid), nullptr);
  EXPECT_TRUE(ann->stopManagingBackup(uid));
  EXPECT_EQ(f.server->backupEntryWithUID(uid), nullptr);
  EXPECT_EQ(f.server->secondStage()->environmentForUID(uid), nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(ServerFixture::storage(disk) + "/" + uid));
  EXPECT_EQ(saves(), 2u);
}

TEST_F(ServiceTest, HeartbeatCarriesTheEnginesClock) {
  f.clock = platform::Date(712345678.25);
  const auto beat = serviceFor("ann")->heartbeat();
  EXPECT_EQ(beat->time(), 712345678.25);
  EXPECT_EQ(beat->date().timeIntervalSinceReferenceDate(), 712345678.25);
  EXPECT_EQ(beat->copy()->time(), 712345678.25);
}
