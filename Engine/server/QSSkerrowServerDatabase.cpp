// The server's table of backups: the database file, the disks that come
// and go, the environments of managed backups and the end of conversions.
#include <algorithm>
#include <chrono>
#include <cstdio>

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSMemoryCoder.h"
#include "Engine/records/QSVolumeFunctions.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/Directory.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Path.h"
#include "platform/PropertyList.h"
#include "platform/UnicodeText.h"

namespace {

constexpr const char* kManagedBackupsKey = "managed-backups";
constexpr const char* kManagedUsersKey = "managed-users";

// A case-insensitive LIKE match: `pattern` may hold * (any run) and ?
// (any one character); a backslash takes the next character literally.
bool likeMatch(const std::string& text, const std::string& pattern) {
  const std::string t = platform::lowercase(text);
  const std::string p = platform::lowercase(pattern);
  size_t ti = 0, pi = 0, starP = std::string::npos, starT = 0;
  while (ti < t.size()) {
    if (pi < p.size() && p[pi] == '*') {
      starP = pi++;
      starT = ti;
    } else if (pi < p.size() && (p[pi] == '?' || (p[pi] == '\\' && pi + 1 < p.size() ? p[pi + 1] == t[ti] : p[pi] == t[ti]))) {
      pi += p[pi] == '\\' ? 2 : 1;
      ++ti;
    } else if (starP != std::string::npos) {
      pi = starP + 1;
      ti = ++starT;
    } else {
      return false;
    }
  }
  while (pi < p.size() && p[pi] == '*') ++pi;
  return pi == p.size();
}

bool isDirectoryNotFollowing(const std::string& path) {
  bool isDirectory = false;
  return platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(path, &isDirectory, false) && isDirectory;
}

bool isMounted(const QSBackupEntry& entry) {
  return !entry.mountPoint().empty() && !entry.BSDName().empty() && !entry.volumeName().empty();
}

}  // namespace

std::shared_ptr<QSBackupEntry> QSSkerrowServer::backupEntryWithUID(const std::string& uid) const {
  return backupEntryMap_.threadSafeObjectForKey(uid).value_or(nullptr);
}

void QSSkerrowServer::setBackupEntry_forUID(const std::shared_ptr<QSBackupEntry>& entry, const std::string& uid) {
  backupEntryMap_.threadSafeSetObject_forKey(entry, uid);
}

void QSSkerrowServer::removeBackupEntryForUID(const std::string& uid) { backupEntryMap_.threadSafeRemoveObjectForKey(uid); }

std::string QSSkerrowServer::backupDatabasePath() const { return dbDir_ + kBackupDatabaseFile; }

void QSSkerrowServer::removeStaleDatabaseTemporaries() {
  // A save killed before its rename leaves its temporary file (".backupdb.plist.XXXXXX") behind.
  const std::string prefix = std::string(".") + kBackupDatabaseFile + ".";
  auto folder = platform::Directory::open(dbDir_);
  if (!folder) return;
  std::string name;
  std::vector<std::string> stale;
  while (folder->readEntry(&name)) {
    platform::FileAttributes attributes;
    if (name.rfind(prefix, 0) == 0 && folder->attributesOf(name, &attributes) && attributes.isRegularFile())
      stale.push_back(name);
  }
  for (const std::string& file : stale) platform::FileManager::removeItemAt(folder->fd(), file);
}

void QSSkerrowServer::loadBackupDatabase() {
  removeStaleDatabaseTemporaries();
  const std::string path = backupDatabasePath();
  databaseUnreadable_ = false;
  std::string why;
  const auto root = platform::PropertyList::readFile(path, &why);
  const platform::Dictionary* dictionary = root ? root->asDictionary() : nullptr;
  if (root && !dictionary) why = "holds no dictionary";
  if (!dictionary) {
    // A file that is there but cannot be read is kept for the user before anything replaces it.
    databaseUnreadable_ = platform::FileManager::fileExistsAtPath_traverseLink(path, false);
    if (databaseUnreadable_) platform::Log::format("The backup database at %s cannot be read: it %s", path.c_str(), why.c_str());
    return;
  }
  if (const platform::Value* backups = dictionary->find(kManagedBackupsKey)) {
    backupEntryMap_.removeAllObjects();
    if (const platform::Array* archives = backups->asArray()) {
      for (const platform::Value& archive : *archives) {
        const platform::Dictionary* fields = archive.asDictionary();
        if (!fields) continue;
        auto entry = QSBackupEntry::initWithArchive(*fields);
        if (entry) backupEntryMap_.threadSafeSetObject_forKey(entry, entry->uid());
      }
    }
  }
  if (const platform::Value* users = dictionary->find(kManagedUsersKey)) {
    exclusionFilterMap_.clear();
    if (const platform::Dictionary* map = users->asDictionary()) {
      for (const auto& [name, expression] : *map)
        if (const std::string* text = expression.asString()) exclusionFilterMap_[name] = *text;
    }
  }
}

void QSSkerrowServer::keepUnreadableDatabaseAside() {
  if (!databaseUnreadable_) return;
  databaseUnreadable_ = false;
  const std::string path = backupDatabasePath();
  const std::string aside = path + ".unreadable-" + std::to_string(static_cast<int64_t>(now().timeIntervalSince1970()));
  if (platform::FileManager::moveItemAtPath_toPath(path, aside))
    platform::Log::format("Kept the unreadable backup database as %s", aside.c_str());
  else
    platform::Log::format("Unable to keep the unreadable backup database %s aside", path.c_str());
}

platform::Dictionary QSSkerrowServer::databaseContents(
    const std::vector<std::shared_ptr<QSBackupEntry>>& entries,
    const std::map<std::string, std::string>& exclusionExpressions) {
  platform::Array archives;
  for (const auto& entry : entries)
    if (entry->isPersistent()) archives.push_back(platform::Value(entry->archive()));
  platform::Dictionary users;
  for (const auto& [name, expression] : exclusionExpressions) users.set(name, platform::Value(expression));
  platform::Dictionary root;
  root.set(kManagedBackupsKey, platform::Value(std::move(archives)));
  root.set(kManagedUsersKey, platform::Value(std::move(users)));
  return root;
}

bool QSSkerrowServer::saveBackupDatabase() {
  keepUnreadableDatabaseAside();
  std::vector<std::shared_ptr<QSBackupEntry>> entries;
  for (const auto& [uid, entry] : backupEntryMap_.snapshot()) entries.push_back(entry);
  const bool saved = platform::PropertyList::writeFile(
      backupDatabasePath(), platform::Value(databaseContents(entries, exclusionFilterMap_)));
  platform::Log::format("Server did save to permanent store: %d", saved ? 1 : 0);
  return saved;
}

std::optional<std::string> QSSkerrowServer::destinationPathForUID(const std::string& uid) const {
  const auto entry = backupEntryWithUID(uid);
  if (!entry || entry->mountPoint().empty()) return std::nullopt;
  const std::string storage = platform::appendingPathComponent(entry->mountPoint(), kBackupDestinationDirectoryName);
  if (!isDirectoryNotFollowing(storage)) return std::nullopt;
  return platform::appendingPathComponent(storage, uid);
}

std::map<std::string, std::shared_ptr<QSBackupEntry>> QSSkerrowServer::db2() const {
  std::map<std::string, std::shared_ptr<QSBackupEntry>> mounted;
  for (const auto& [uid, entry] : backupEntryMap_.snapshot())
    if (isMounted(*entry)) {
      // A copy of every field, as a client receives it (mutableCopy leaves
      // the completion date, period, depth and volume name behind).
      QSMemoryCoder coder;
      entry->encodeWithCoder(coder.encoder());
      mounted[uid] = QSBackupEntry::initWithCoder(coder.decoder());
    }
  return mounted;
}

void QSSkerrowServer::scanVolumeWithBSDName_mountPath_onVolume(const std::string& bsdName,
                                                                const std::string& mountPath,
                                                                const std::string& volumeName) {
  const std::string storage = platform::appendingPathComponent(mountPath, kBackupDestinationDirectoryName);
  if (!isDirectoryNotFollowing(storage)) return;
  auto folder = platform::Directory::open(storage);
  if (!folder) return;
  std::string name;
  while (folder->readEntry(&name)) {
    if (auto entry = backupEntryWithUID(name)) {
      entry->setBSDName(bsdName);
      entry->setMountPoint(mountPath);
      entry->setVolumeName(volumeName);
      if (entry->isPersistent()) insureEnviromentForEntry(entry);
      continue;
    }
    const std::string metadataPath =
        platform::appendingPathComponent(platform::appendingPathComponent(storage, name), kMetadataFileName);
    std::string why;
    const auto metadata = platform::PropertyList::readFile(metadataPath, &why);
    // A metadata file that is there but cannot be read (damaged, hostile)
    // leaves its folder unrecognised; the log says why.
    if (!metadata && platform::FileManager::fileExistsAtPath_traverseLink(metadataPath, false))
      platform::Log::format("The backup folder %s is not recognised: its metadata file %s",
                            platform::appendingPathComponent(storage, name).c_str(), why.c_str());
    const platform::Dictionary* fields = metadata ? metadata->asDictionary() : nullptr;
    if (!fields || QSBackupAttributes(*fields).uid() != name) continue;
    auto entry = QSBackupEntry::initWithBackupDirMetadata(*fields);
    if (!entry) continue;
    entry->setBSDName(bsdName);
    entry->setMountPoint(mountPath);
    entry->setVolumeName(volumeName);
    setBackupEntry_forUID(entry, entry->uid());
  }
}

void QSSkerrowServer::diskDidAppearWithBSDName_mountPath_onVolume(const std::string& bsdName,
                                                                  const std::string& mountPath,
                                                                  const std::string& volumeName) {
  platform::Log::format("Disk %s appeared at %s (%s)", bsdName.c_str(), mountPath.c_str(), volumeName.c_str());
  scanVolumeWithBSDName_mountPath_onVolume(bsdName, mountPath, volumeName);
  if (!converterFactory_) return;
  auto converter = converterFactory_(mountPath, this);
  if (!converter) return;
  activeConverters_[converter->mountPoint()] = converter;
  converter->start();
}

void QSSkerrowServer::diskDidDisapperAtMountPoint(const std::string& mountPath) {
  platform::Log::format("Disk at %s disappeared", mountPath.c_str());
  forgetBackupFolderOnDiskAt(mountPath);
  for (const auto& [uid, entry] : backupEntryMap_.snapshot()) {
    if (!likeMatch(entry->mountPoint(), mountPath)) continue;
    if (entry->isPersistent()) {
      entry->setBSDName("");
      entry->setMountPoint("");
      entry->setVolumeName("");
    } else {
      backupEntryMap_.threadSafeRemoveObjectForKey(uid);
    }
    terminateEnvironmentForEntry(entry);
  }
}

bool QSSkerrowServer::remountDriveWithBSDName(const std::string& bsdName) {
  bool matched = false;
  for (const auto& [key, volume] : QSVolumeInfoForLocalVolumes()) {
    if (volume->bsdName() != bsdName) continue;
    matched = true;
    diskDidDisapperAtMountPoint(volume->mountPoint());
    diskDidAppearWithBSDName_mountPath_onVolume(volume->bsdName(), volume->mountPoint(), volume->volumeName());
  }
  return matched;
}

std::shared_ptr<QSPerUIDEnvironment> QSSkerrowServer::insureEnviromentForEntry(
    const std::shared_ptr<QSBackupEntry>& entry) {
  const auto userEnvironment = firstStage_->environmentForUser(entry->shortUserName());
  if (userEnvironment && entry->isPersistent()) {
    secondStage_->createEnvironmentForUID_withUserEnvironment(entry->uid(), userEnvironment);
    if (auto environment = secondStage_->environmentForUID(entry->uid())) {
      environment->setVersionDepth(entry->versionDepth());
      environment->setDestinationDirectory(destinationPathForUID(entry->uid()));
      environment->setScheduled(entry->isScheduled());
      environment->setCategoryFilter(entry->scheduledCategories());
    }
    platform::Log::format("created second stage environment for %s(%s)", entry->uid().c_str(),
                          entry->shortUserName().c_str());
  }
  return secondStage_->environmentForUID(entry->uid());
}

void QSSkerrowServer::terminateEnvironmentForEntry(const std::shared_ptr<QSBackupEntry>& entry) {
  secondStage_->terminateEnvironmentForUID(entry->uid());
}

void QSSkerrowServer::conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) {
  firstStage_->conversionChangedState_forMountPath(state, mountPath);
  secondStage_->conversionChangedState_forMountPath(state, mountPath);
}

void QSSkerrowServer::conversionDidFinishByConverter_withNewUIDs(
    const std::shared_ptr<QSBackupConverterProtocol>& converter, const std::vector<std::string>& newUIDs) {
  const std::weak_ptr<QSSkerrowServer> weak = self<QSSkerrowServer>();
  auto finish = [weak, converter, newUIDs] {
    if (auto server = weak.lock()) server->_conversionDidFinishWithArgs(converter, newUIDs);
  };
  if (runLoop_)
    runLoop_->post(std::move(finish));
  else
    finish();
}

void QSSkerrowServer::_conversionDidFinishWithArgs(const std::shared_ptr<QSBackupConverterProtocol>& converter,
                                                   const std::vector<std::string>& newUIDs) {
  const std::string mountPoint = converter->mountPoint();
  if (!newUIDs.empty()) {
    for (const auto& [key, volume] : QSVolumeInfoForLocalVolumes()) {
      if (volume->mountPoint() != mountPoint) continue;
      scanVolumeWithBSDName_mountPath_onVolume(volume->bsdName(), volume->mountPoint(), volume->volumeName());
      std::vector<std::string> adopted;
      for (const std::string& uid : newUIDs) {
        const auto entry = backupEntryWithUID(uid);
        if (!entry) continue;
        if (!entry->isPersistent()) entry->setPersistent(true);
        if (!entry->isScheduled()) entry->setScheduled(true);
        if (entry->exclusionExpression()) exclusionFilterMap_[entry->shortUserName()] = *entry->exclusionExpression();
        if (saveBackupDatabase()) adopted.push_back(uid);
        insureEnviromentForEntry(entry);
      }
      // The converter keeps a record of new backups on the disk until they are adopted.
      converter->newUIDsWereAdopted(adopted);
      break;
    }
  }
  converter->releaseThread();
  // A converter made later for the same mount path (the disk mounted again) keeps its place.
  const auto it = activeConverters_.find(mountPoint);
  if (it != activeConverters_.end() && it->second == converter) activeConverters_.erase(it);
}

bool QSSkerrowServer::stopConverters(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (const auto& [mountPath, converter] : activeConverters_) converter->cancel();
  bool ended = true;
  for (const auto& [mountPath, converter] : activeConverters_)
    ended = converter->waitUntilFinished(std::chrono::duration_cast<std::chrono::milliseconds>(
                std::max(deadline - std::chrono::steady_clock::now(), std::chrono::steady_clock::duration::zero()))) &&
            ended;
  return ended;
}

std::optional<platform::Value> QSSkerrowServer::conversionStateForMountPath(const std::string& mountPath) const {
  const auto it = activeConverters_.find(mountPath);
  if (it == activeConverters_.end()) return std::nullopt;
  return it->second->converterState();
}
