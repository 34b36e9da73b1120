#include "Engine/server/QSSkerrowBackupService.h"

#include <sys/stat.h>

#include "Engine/pipeline/QSFirstStage.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSUUID.h"
#include "Engine/records/QSVolumeFunctions.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/Exception.h"
#include "platform/FileCopier.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Path.h"
#include "platform/PropertyList.h"

std::shared_ptr<QSSkerrowBackupService> QSSkerrowBackupService::initWithServer_client(
    std::shared_ptr<QSSkerrowServer> server, Client client) {
  std::string shortName = client->shortUserName();
  std::string longName = client->longUserName();
  std::string home = client->userHome();
  return std::make_shared<QSSkerrowBackupService>(std::move(server), std::move(client), std::move(shortName),
                                                  std::move(longName), std::move(home));
}

QSSkerrowBackupService::QSSkerrowBackupService(std::shared_ptr<QSSkerrowServer> server, Client client,
                                               std::string shortUserName, std::string longUserName,
                                               std::string userHome)
    : server_(std::move(server)),
      client_(std::move(client)),
      shortUserName_(std::move(shortUserName)),
      longUserName_(std::move(longUserName)),
      userHome_(std::move(userHome)) {}

std::shared_ptr<QSBackupEntry> QSSkerrowBackupService::ownEntry(const std::string& uid) const {
  auto entry = server_->backupEntryWithUID(uid);
  if (!entry || entry->shortUserName() != shortUserName_) return nullptr;
  return entry;
}

std::optional<QSBackupOutcome> QSSkerrowBackupService::outcomeForBackup(const std::string& uid) const {
  if (!ownEntry(uid)) return std::nullopt;
  return server_->outcomeForBackup(uid);
}

std::optional<QSBackupOutcome> QSSkerrowBackupService::lastCleanBackup(const std::string& uid) const {
  if (!ownEntry(uid)) return std::nullopt;
  return server_->lastCleanBackupForBackup(uid);
}

uint32_t QSSkerrowBackupService::versionDepthForBackup(const std::string& uid) const {
  const auto entry = ownEntry(uid);
  return entry ? entry->versionDepth() : 0;
}

void QSSkerrowBackupService::setVersionDepth_forBackup(uint32_t depth, const std::string& uid) {
  const auto entry = ownEntry(uid);
  if (!entry) return;
  entry->setVersionDepth(depth);
  server_->saveBackupDatabase();
}

bool QSSkerrowBackupService::isScheduled(const std::string& uid) const {
  const auto entry = ownEntry(uid);
  return entry && entry->isScheduled();
}

void QSSkerrowBackupService::setScheduled_forBackup(bool scheduled, const std::string& uid) {
  const auto entry = ownEntry(uid);
  if (!entry) return;
  entry->setScheduled(scheduled);
  server_->saveBackupDatabase();
}

double QSSkerrowBackupService::periodForBackup(const std::string& uid) const {
  const auto entry = ownEntry(uid);
  return entry ? entry->period() : 0.0;
}

void QSSkerrowBackupService::setPeriod_forBackup(double period, const std::string& uid) {
  const auto entry = ownEntry(uid);
  if (!entry) return;
  entry->setPeriod(period);
  server_->saveBackupDatabase();
}

void QSSkerrowBackupService::setScheduled_forBackup_forCategory(bool scheduled, const std::string& uid,
                                                                const std::string& category) {
  const auto entry = ownEntry(uid);
  if (!entry) return;
  for (const auto& [identifier, categoryEntry] : entry->managedCategories())
    if (categoryEntry && categoryEntry->identifier() == category) categoryEntry->setScheduled(scheduled);
  server_->saveBackupDatabase();
}

std::optional<platform::Dictionary> QSSkerrowBackupService::userInfoForBackup_forCategory(
    const std::string& uid, const std::string& category) const {
  const auto entry = ownEntry(uid);
  if (!entry) return std::nullopt;
  const auto categoryEntry = entry->categoryWithIdentifier(category);
  if (!categoryEntry || !categoryEntry->userInfo()) return std::nullopt;
  return *categoryEntry->userInfo();
}

void QSSkerrowBackupService::setUserInfo_forBackup_forCategory(const platform::Dictionary& userInfo,
                                                               const std::string& uid, const std::string& category) {
  const auto entry = ownEntry(uid);
  if (!entry) return;
  const auto categoryEntry = entry->categoryWithIdentifier(category);
  if (!categoryEntry) return;
  categoryEntry->setUserInfo(std::make_shared<const platform::Dictionary>(userInfo));
  server_->saveBackupDatabase();
}

std::optional<std::string> QSSkerrowBackupService::pathSuffixExclusionFilter() const {
  return server_->pathSuffixExclusionFilterForClient(client_);
}

void QSSkerrowBackupService::setPathSuffixExclusionFilter(const std::optional<std::string>& expression) {
  server_->setPathSuffixExclusionFilter_forClient(expression, client_);
}

void QSSkerrowBackupService::activate() { server_->rescheduleBackupsForClient_startImmediately(client_, false); }

void QSSkerrowBackupService::activateAndBackupImmediately() {
  server_->rescheduleBackupsForClient_startImmediately(client_, true);
}

void QSSkerrowBackupService::activateAndBackupImmediatelyForUID(const std::string& uid) {
  server_->rescheduleBackupsForClient_uid_startImmediately(client_, uid, true);
}

void QSSkerrowBackupService::pause() { server_->cancelAndUnscheduleJobsForClient(client_); }

void QSSkerrowBackupService::startBackup(const std::string& uid) { server_->startBackup_forClient(uid, client_); }

void QSSkerrowBackupService::startTally(const std::string& uid) { server_->startTally_forClient(uid, client_); }

void QSSkerrowBackupService::cancelBackup(const std::string& uid) { server_->cancelPipe_forClient(uid, client_); }

void QSSkerrowBackupService::takeOverGuestBackup(const std::string& uid) {
  const auto entry = ownEntry(uid);
  if (!entry || entry->isPersistent()) return;
  entry->setPersistent(true);
  server_->saveBackupDatabase();
  server_->insureEnviromentForEntry(entry);
}

bool QSSkerrowBackupService::stopManagingBackup(const std::string& uid) {
  const auto entry = ownEntry(uid);
  if (!entry) return false;
  server_->removeBackupEntryForUID(uid);
  server_->forgetOutcomeForBackup(uid);
  const bool saved = server_->saveBackupDatabase();
  server_->terminateEnvironmentForEntry(entry);
  return saved;
}

std::optional<std::string> QSSkerrowBackupService::refusalToManageVolumeWithBSDName(const std::string& bsdName) const {
  std::string mountPath, volumeName;
  std::optional<std::string> volumeUUID;
  if (bsdName.empty() || bsdName.find('/') != std::string::npos ||
      !VolumeInfoForBSDName(bsdName, &mountPath, &volumeName, &volumeUUID) || mountPath.empty())
    return std::nullopt;  // not a mounted volume: the request fails on its own
  platform::FileAttributes volume, system, home;
  if (!platform::FileManager::attributesAtPath(mountPath, &volume)) return std::nullopt;
  if (platform::FileManager::attributesAtPath("/", &system) && system.device == volume.device)
    return "The volume " + bsdName + " (" + mountPath +
           ") holds the system: a backup there would be lost with the disk it should protect; choose an external disk";
  if (!userHome_.empty() && platform::FileManager::attributesAtPath(userHome_, &home) && home.device == volume.device)
    return "The volume " + bsdName + " (" + mountPath + ") holds your home folder " + userHome_ +
           ": a backup there would be lost with the disk it should protect; choose an external disk";
  return std::nullopt;
}

std::string QSSkerrowBackupService::startManagingVolumeWithBSDName(const std::string& bsdName) {
  bool ignored = false;
  return startManagingVolumeWithBSDName_didSucceed(bsdName, &ignored);
}

std::string QSSkerrowBackupService::startManagingVolumeWithBSDName_didSucceed(const std::string& bsdName,
                                                                              bool* didSucceed) {
  const std::string uid = GenerateGUID();
  bool succeeded = false;
  try {
    succeeded = createManagedBackup(uid, bsdName);
  } catch (const platform::Exception& exception) {
    platform::Log::format("%s", exception.description().c_str());
    succeeded = false;
  }
  if (didSucceed) *didSucceed = succeeded;
  return uid;
}

bool QSSkerrowBackupService::createManagedBackup(const std::string& uid, const std::string& bsdName) {
  // A device name, never a path: "sdb1", not "/dev/sdb1" or "../x".
  if (bsdName.empty() || bsdName.find('/') != std::string::npos || bsdName == "." || bsdName == "..") return false;
  std::string mountPath, volumeName;
  std::optional<std::string> volumeUUID;
  if (!VolumeInfoForBSDName(bsdName, &mountPath, &volumeName, &volumeUUID) || mountPath.empty()) return false;
  platform::FileAttributes mount;
  if (!platform::FileManager::attributesAtPath(mountPath, &mount) || !mount.isDirectory()) return false;

  // Both folders are made below the mount point without crossing a link a
  // user may have planted on the disk.  The storage folder is shared by the
  // disk's backups; a backup folder belongs to its user alone.
  platform::FileError error;
  platform::FileAttributes storage;
  const std::string storagePath = platform::appendingPathComponent(mountPath, kBackupDestinationDirectoryName);
  if (!platform::FileManager::attributesAtPath(storagePath, &storage)) {
    // root's, 0755 whatever the engine's umask (its unit sets 0077): users
    // reach their own backup folders through it.
    platform::FileAttributes shared;
    shared.type = platform::FileAttributes::Type::Directory;
    shared.mode = S_IFDIR | 0755;
    shared.uid = 0;
    shared.gid = 0;
    if (!platform::FileCopier::createDirectoryBeneath(mountPath, kBackupDestinationDirectoryName, &shared, &error,
                                                      mount.device))
      return false;
  }
  platform::FileAttributes owner;
  owner.type = platform::FileAttributes::Type::Directory;
  owner.mode = S_IFDIR | 0700;
  owner.uid = 0;
  owner.gid = 0;
  if (const auto account = server_->firstStage()->accounts().accountNamed(shortUserName_)) {
    owner.uid = account->uid;
    owner.gid = account->gid;
  }
  const std::string relative = platform::appendingPathComponent(kBackupDestinationDirectoryName, uid);
  if (!platform::FileCopier::createDirectoryBeneath(mountPath, relative, &owner, &error, mount.device)) return false;

  auto entry = QSBackupEntry::initWithUID(uid);
  entry->setMachineName(QSSkerrowServer::machineName());
  entry->setSourceFormatHFSPlus();
  entry->setShortUserName(shortUserName_);
  entry->setLongUserName(longUserName_);
  entry->setUserHome(userHome_);
  entry->setBSDName(bsdName);
  entry->setMountPoint(mountPath);
  entry->setPersistent(true);
  entry->setScheduled(false);
  entry->setVolumeName(volumeName);

  const std::string backupPath = platform::appendingPathComponent(mountPath, relative);
  if (!platform::PropertyList::writeFile(platform::appendingPathComponent(backupPath, kMetadataFileName),
                                         platform::Value(entry->metadataForBackupDir())))
    return false;
  server_->setBackupEntry_forUID(entry, uid);
  if (!server_->saveBackupDatabase()) return false;
  server_->insureEnviromentForEntry(entry);
  return true;
}

std::map<std::string, std::shared_ptr<QSBackupEntry>> QSSkerrowBackupService::database() const {
  auto snapshot = server_->db2();
  std::erase_if(snapshot, [this](const auto& item) { return !item.second || item.second->shortUserName() != shortUserName_; });
  return snapshot;
}

std::shared_ptr<TestObject> QSSkerrowBackupService::heartbeat() const {
  return TestObject::initWithAbsoluteTime(server_->now().timeIntervalSinceReferenceDate());
}
