// The server's side of continuous backup: the watcher it starts, the homes
// it has watched, the events it hands to the second stage, and the backups
// it starts when the kernel had to drop events.
#include "Engine/pipeline/QSUserEnvironment.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

void QSSkerrowServer::startWatcher(const std::shared_ptr<QSFSWatcher>& watcher) {
  watcher_ = watcher;
  watcher_->setDelegate(this);
  watcher_->start();
  for (const std::string& userName : firstStage_->userNames()) watchHomeOfUser(userName);
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
