// Continuous backup in a per-destination environment: which file-system
// events it keeps, and how it stores one changed file between backups.
//
// Events reach enqueueFSEvent on the watcher's thread and are processed one
// at a time on the environment's own thread while it has no backup job, so
// real-time copies never overlap each other or the backup's scheduled copy.
// Nothing here holds the environment's lock, and clients are called without
// any lock held.
#include "Engine/files/QSBackupFolderWrites.h"
#include "Engine/files/QSFSNode.h"
#include "Engine/files/QSFSNodeStack.h"
#include "Engine/files/QSPathFilter.h"
#include "Engine/pipeline/QSPerUIDEnvironment.h"
#include "Engine/records/QSVersionName.h"
#include "platform/Directory.h"
#include "platform/FileCopier.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Path.h"

namespace {

// How often a file that changed while it was copied is copied again at once.
// A file still changing after that is copied again when its writer closes
// it, which queues a new event.
constexpr int kTornCopyRetries = 3;

// The path of an event that the environment acts on, or nothing.
const std::string* pathOfInterest(const QSFSWatcherEvent& event) {
  const auto& args = event.arguments();
  if (event.type() == FSE_RENAME && args.size() == 2) return &args[1];
  if (event.type() == FSE_CONTENT_MODIFIED && args.size() == 1) return &args[0];
  return nullptr;
}

bool sameContentState(const platform::FileAttributes& a, const platform::FileAttributes& b) {
  return a.size == b.size && a.modificationTime == b.modificationTime && a.inode == b.inode;
}

}  // namespace

const std::string& QSPerUIDEnvironment::realtimeHome() const {
  // Event paths are resolved through symbolic links; so is the home folder
  // they are compared with (once: an environment's home does not change).
  std::call_once(realtimeHomeOnce_, [this] {
    const std::string& home = userEnvironment_->userHome();
    const auto resolved = platform::FileManager::resolvingSymlinksInPath(home);
    realtimeHome_ = resolved ? *resolved : home;
    while (realtimeHome_.size() > 1 && realtimeHome_.back() == '/') realtimeHome_.pop_back();
  });
  return realtimeHome_;
}

void QSPerUIDEnvironment::enqueueFSEvent(FSEvent event) {
  if (!host_ || !host_->supportsContinuousBackup()) return;
  if (!fsWatcherEventIsOneWeCareAbout(event)) return;
  if (event->type() == FSE_CONTENT_MODIFIED) {
    // A file saved again before its copy was taken off the queue is copied
    // once, for the whole burst: the queued copy reads the file as it is then.
    std::lock_guard<std::mutex> lock(pendingLock_);
    if (!pendingContentChanges_.insert(event->arguments().front()).second) return;
  }
  fsEventQueue_.enqueue(std::move(event));
  idle_.wake();
}

bool QSPerUIDEnvironment::fsWatcherEventIsOneWeCareAbout(const FSEvent& event) const {
  if (!event) return false;
  const std::string* path = pathOfInterest(*event);
  return path && platform::isAtOrBelow(QSPathFilter::normalizedPath(*path), realtimeHome());
}

bool QSPerUIDEnvironment::shouldProceedForPathSuffix_withAttributes(const std::string& pathSuffix,
                                                                    const platform::FileAttributes* attributes) const {
  return QSPathFilter::shouldProceedForPathSuffix_withAttributes(pathSuffix, attributes, categoryFilter(),
                                                                 userEnvironment_->exclusionFilter());
}

void QSPerUIDEnvironment::processRealtimeEvent(const FSEvent& event) {
  if (!event) return;
  const auto& args = event->arguments();
  if (event->type() == FSE_CONTENT_MODIFIED && args.size() == 1) {
    // From now on a new change of this file queues a new copy, made after this one.
    std::lock_guard<std::mutex> lock(pendingLock_);
    pendingContentChanges_.erase(args.front());
  }
  if (!destinationPath()) return;
  // The schedule as it is when the event is taken off the queue.
  const bool scheduled = isScheduled();
  if (args.size() != 1 && args.size() != 2) return;
  const std::string& home = realtimeHome();
  const std::string path = QSPathFilter::normalizedPath(args.back());
  // The folders on the way may have changed since the event was queued.
  if (!platform::isAtOrBelow(path, home) || path.size() == home.size()) return;
  platform::FileAttributes attributes;
  const platform::FileAttributes* known =
      platform::FileManager::attributesAtPath(path, &attributes) ? &attributes : nullptr;
  if (!shouldProceedForPathSuffix_withAttributes(path.substr(home.size()), known)) return;
  const bool wouldCopy = args.size() == 1 ? event->type() == FSE_CONTENT_MODIFIED : event->type() == FSE_RENAME;
  if (!scheduled) {
    // A paused backup copies nothing; the next backup after it is scheduled
    // again finds the change by comparing the home with the backup.
    if (wouldCopy) platform::Log::format("++++++ not scheduled, not backed up now: %s", path.c_str());
    return;
  }
  if (args.size() == 1) {
    if (event->type() == FSE_CONTENT_MODIFIED) copyFile_withAttributes_onlyDoARenameOnLastVersion(path, known, false);
    return;
  }
  if (event->type() != FSE_RENAME) return;
  const std::string oldPath = QSPathFilter::normalizedPath(args.front());
  const bool caseOnly = platform::deletingLastPathComponent(oldPath) == platform::deletingLastPathComponent(path) &&
                        QSNameIs(platform::lastPathComponent(oldPath), platform::lastPathComponent(path).c_str());
  copyFile_withAttributes_onlyDoARenameOnLastVersion(path, known, caseOnly);
}

namespace {

// Makes sure the folder `relative` exists below the backup folder `root`,
// creating what is missing one level at a time without crossing a link or
// mount point; each new folder takes the owner and mode of the home folder's
// matching folder.  Answers the folder, opened, or nothing.
std::unique_ptr<platform::Directory> insureBackupFolder(const std::string& root, const std::string& relative,
                                                        const std::string& home) {
  if (auto existing = platform::Directory::openBeneath(root, relative)) return existing;
  auto folder = platform::Directory::open(root);
  std::string prefix;
  size_t start = 0;
  while (folder && start < relative.size()) {
    const size_t slash = relative.find('/', start);
    const size_t end = slash == std::string::npos ? relative.size() : slash;
    const std::string part = relative.substr(start, end - start);
    start = end + 1;
    if (part.empty()) continue;
    prefix = platform::appendingPathComponent(prefix, part);
    auto child = folder->openChild(part);
    if (!child) {
      platform::FileAttributes like;
      const bool haveLike = platform::FileManager::attributesAtPath(platform::appendingPathComponent(home, prefix), &like);
      platform::FileError error;
      if (!platform::FileCopier::createDirectoryBeneath(root, prefix, haveLike ? &like : nullptr, &error))
        return nullptr;
      QSBackupFolderWrites::noteChangedItem(platform::appendingPathComponent(root, prefix));
      child = folder->openChild(part);
    }
    folder = std::move(child);
  }
  return folder;
}

}  // namespace

void QSPerUIDEnvironment::copyFile_withAttributes_onlyDoARenameOnLastVersion(const std::string& sourcePath,
                                                                             const platform::FileAttributes* attributes,
                                                                             bool onlyDoARenameOnLastVersion) {
  if (!attributes || !(attributes->isRegularFile() || attributes->isSymbolicLink())) return;
  const auto destination = destinationPath();
  const std::string& home = realtimeHome();
  if (!destination || !platform::isAtOrBelow(sourcePath, home) || sourcePath.size() <= home.size() + 1) return;
  const std::string relativeSource = sourcePath.substr(home == "/" ? 1 : home.size() + 1);
  const std::string relativeFolder = platform::deletingLastPathComponent(relativeSource);
  const std::string fileName = platform::lastPathComponent(relativeSource);
  const std::string destinationFolder = platform::appendingPathComponent(*destination, relativeFolder);
  platform::Log::format("++++++ might backup: %s to %s", sourcePath.c_str(), destinationFolder.c_str());

  // A walk of the backup folder made ahead of time is not used across this.
  const QSBackupFolderWrites::Scope writing;
  auto folder = insureBackupFolder(*destination, relativeFolder, home);
  if (!folder) return;

  // The stored versions of the file, found by name ignoring letter case.
  QSFSVersionArray versions;
  std::string entry;
  while (folder->readEntry(&entry)) {
    const auto parsed = QSParseFileName(entry);
    if (!parsed || !QSNameIs((*parsed)[0], fileName.c_str())) continue;
    platform::FileAttributes stored;
    if (!folder->attributesOf(entry, &stored, true)) continue;
    if (auto version =
            QSFSVersion::versionWithFileName_attributes(entry, QSFSFileAttributes::fromFileAttributes(stored)))
      versions.push_back(std::move(version));
  }
  const auto node = QSFSMutableNode::initWithFileName_versions(fileName, versions.empty() ? nullptr : &versions);
  const auto latest = node->latestVersion();

  if (latest && onlyDoARenameOnLastVersion) {
    // Only the letter case of the name changed: the newest copy takes the new name.
    const std::string renamed = QSVersionName(fileName, latest->index());
    folder->renameEntry(latest->fileName(), renamed);
    QSBackupFolderWrites::noteChangedItem(platform::appendingPathComponent(destinationFolder, latest->fileName()));
    QSBackupFolderWrites::noteChangedItem(platform::appendingPathComponent(destinationFolder, renamed));
    return;
  }
  if (destination != nullptr && realtimeTraitsPath_ != *destination) {
    realtimeTraits_ = QSDestinationTraits::probe(*destination);
    realtimeTraitsPath_ = *destination;
  }
  // A file whose newest copy already matches it (copied by a backup that ran
  // meanwhile, or by an earlier event of the same save) gets no new version.
  if (latest && QSIsUnchangedCopy(QSFSFileAttributes::fromFileAttributes(*attributes), latest->attributes(),
                                  realtimeTraits_))
    return;

  const uint64_t index = latest ? latest->index() + 1 : 0;
  const std::string storedName = QSVersionName(fileName, index);
  const std::string target = platform::appendingPathComponent(destinationFolder, storedName);
  client_->startedRealtimeTransferOfFile_to(sourcePath, target);
  platform::CopyOptions options;
  options.setCreationDate = true;
  options.setModificationDate = true;
  options.deleteDestinationFirst = true;
  options.deleteDestinationIfError = true;
  options.syncData = true;  // each real-time copy is durable on its own
  auto copyOnce = [&] {
    platform::FileError error;
    const bool done = platform::FileCopier::copyBeneath(home, relativeSource, *destination,
                                                        platform::appendingPathComponent(relativeFolder, storedName),
                                                        options, &error);
    QSBackupFolderWrites::noteChangedItem(target);
    return done;
  };
  bool copied = copyOnce();
  // A file written to while it was copied may have been copied half old,
  // half new: it is copied again over the same version until a copy sees it
  // unchanged from start to end, so the newest stored version is never torn.
  platform::FileAttributes before = *attributes;
  for (int retry = 0; copied && retry < kTornCopyRetries; ++retry) {
    platform::FileAttributes after;
    if (!platform::FileManager::attributesAtPath(sourcePath, &after) || sameContentState(before, after)) break;
    platform::Log::format("++++++ changed while copied, copying again: %s", sourcePath.c_str());
    before = after;
    copied = copyOnce();
  }
  client_->finishedRealtimeTransferOfFile_to_withResult(sourcePath, target, copied);
  if (!copied) return;
  platform::Log::format("++++++ did backup: %s to %s", sourcePath.c_str(), target.c_str());
  node->removeOldestVersionsOfFile_beneath_inFolder(versionDepth() + 1, *destination, relativeFolder);
}
