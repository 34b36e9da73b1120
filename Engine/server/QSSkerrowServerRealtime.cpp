// The server's side of continuous backup: the watcher it starts, the homes
// it has watched, the events it hands to the second stage, and the backups
// it starts when the kernel had to drop events.
#include "Engine/files/QSChangeJournal.h"
#include "Engine/files/QSWalkMemos.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Path.h"

namespace {
// How long a walk waits for the watcher to catch up before it reads everything instead.
constexpr std::chrono::seconds kSynchronizeTimeout{5};
}  // namespace

void QSSkerrowServer::startWatcher(const std::shared_ptr<QSFSWatcher>& watcher) {
  watcher_ = watcher;
  watcher_->setDelegate(this);
  watcher_->start();
  for (const std::string& userName : firstStage_->userNames()) watchHomeOfUser(userName);
  updateChangeJournal();
}

void QSSkerrowServer::setSupportsContinuousBackup(bool supports) {
  withoutContinuousBackup_.store(!supports);
  updateChangeJournal();
}

void QSSkerrowServer::updateChangeJournal() {
  auto& journal = QSChangeJournal::shared();
  if (!watcher_ || !supportsContinuousBackup()) {
    journal.setSynchronizer(nullptr);
    QSWalkMemos::shared().forgetAll();
    return;
  }
  const std::weak_ptr<QSSkerrowServer> weak = self<QSSkerrowServer>();
  journal.setSynchronizer([weak] {
    const auto server = weak.lock();
    return server && server->synchronizeChangeJournal();
  });
}

bool QSSkerrowServer::synchronizeChangeJournal() {
  const auto watcher = watcher_;
  if (!watcher || !supportsContinuousBackup()) return false;
  std::vector<std::string> folders = watcher->homeFolders();
  for (const auto& [uid, entry] : backupEntryMap_.snapshot()) {
    const std::string mountPoint = entry->mountPoint();
    if (mountPoint.empty()) continue;
    const std::string folder = platform::appendingPathComponent(mountPoint, kBackupDestinationDirectoryName);
    bool isDirectory = false;
    if (!platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(folder, &isDirectory, false) || !isDirectory)
      continue;
    watcher->watchFolder(folder);  // once per folder
    folders.push_back(folder);
  }
  // A folder is followed from the moment the system watches it: what
  // happened before is unknown, so the walk after this one is the first
  // that can be warm.
  auto& journal = QSChangeJournal::shared();
  for (const auto& folder : folders)
    if (!journal.isFollowing(folder) && watcher->isWatching(folder))
      journal.follow(folder, platform::FileManager::resolvingSymlinksInPath(folder));
  return watcher->synchronize(kSynchronizeTimeout);
}

void QSSkerrowServer::forgetBackupFolderOnDiskAt(const std::string& mountPath) {
  const std::string folder = platform::appendingPathComponent(mountPath, kBackupDestinationDirectoryName);
  QSChangeJournal::shared().unfollow(folder);
  QSWalkMemos::shared().forget(folder);
  // A disk mounted again is watched anew.
  if (watcher_) watcher_->unwatchFolder(folder);
}

void QSSkerrowServer::fsWatcherDidSeeChange(const platform::FileSystemEvent& event) {
  QSChangeJournal::shared().noteEvent(event);
}

void QSSkerrowServer::watchHomeOfUser(const std::string& userName) {
  if (!watcher_) return;
  if (const auto environment = firstStage_->environmentForUser(userName))
    watcher_->watchHomeFolder(environment->userHome());
}

void QSSkerrowServer::handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) {
  secondStage_->distributeFSEvent(event);
}

void QSSkerrowServer::fsWatcherDidDropEventsOnDevice(uint64_t device) {
  // What changed is unknown: every walk reads everything again.
  QSChangeJournal::shared().noteDoubt();
  platform::Log::format("Changes on file system %llu went unrecorded; its homes are backed up at the next tick",
                        static_cast<unsigned long long>(device));
  std::lock_guard<std::mutex> lock(droppedLock_);
  droppedDevices_.insert(device);
}

std::set<std::string> QSSkerrowServer::startBackupsAfterDroppedEvents() {
  std::set<uint64_t> devices;
  {
    std::lock_guard<std::mutex> lock(droppedLock_);
    devices.swap(droppedDevices_);
  }
  std::set<std::string> started;
  if (devices.empty()) return started;
  // Changes the kernel could not report are found the way every backup finds
  // them, by comparing the home folder with the backup: nothing is lost.
  for (const auto& [uid, entry] : backupEntryMap_.snapshot()) {
    if (!entry->isScheduled()) continue;
    platform::FileAttributes home;
    if (!platform::FileManager::attributesAtPath(entry->userHome(), &home) || !devices.count(home.device)) continue;
    platform::Log::format("Starting a backup of %s: changes in its home folder went unrecorded", uid.c_str());
    startBackup_forClient(uid, nullptr);
    started.insert(uid);
  }
  return started;
}
