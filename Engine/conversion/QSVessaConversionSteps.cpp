// The conversion's steps: examination, reassignment, movement, the check of
// what is left, clean-up, and the record of new backups not yet adopted.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/conversion/QSVessaConversionStrings.h"
#include "Engine/records/QSUUID.h"
#include "Engine/support/QSCUtilities.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"

namespace {

constexpr size_t kMaxRecordBytes = 16u * 1024u * 1024u;

// Walks `folder` (at `relative`) and reports every file that is not one a
// conversion may remove nor one the black list rejects; false as soon as one
// is found unless all are collected.
bool walkForRemainingFiles(platform::VolumeFolder& folder, const std::string& relative,
                           const platform::DateFormatter& formatter, const std::string& root,
                           std::vector<std::string>* remaining, unsigned depth) {
  const auto entries = folder.entriesWithTypes();
  if (!entries) {
    // What cannot be read cannot be known to hold nothing.
    if (remaining) remaining->push_back(root + "/" + relative);
    return false;
  }
  bool clean = true;
  for (const auto& entry : *entries) {
    const std::string& name = entry.name;
    const std::string path = relative + "/" + name;
    if (folder.typeOf(entry) == platform::VolumeFolder::Entry::Type::Directory) {
      auto child = folder.openChild(name);
      if (!child || depth > 256) {
        if (remaining) remaining->push_back(root + "/" + path);
        clean = false;
      } else if (!walkForRemainingFiles(*child, path, formatter, root, remaining, depth + 1)) {
        clean = false;
      }
    } else {
      if (IsVessaConversionLeftover(name)) continue;
      std::optional<platform::Date> stamp;
      if (IsFileBlackListedByQSBackupButWasNotByVessaBackup(SeparateVessaVersionInfoFromFileName(name, formatter, &stamp)))
        continue;
      clean = false;
      if (remaining) remaining->push_back(root + "/" + path);
    }
    if (!clean && !remaining) return false;
  }
  return clean;
}

bool isStandardUUID(const std::string& text) {
  QSUUIDBytes bytes;
  return parseToUUID(text, bytes) && stringWithUUID(bytes) == text;
}

std::vector<std::string> readRecord(platform::VolumeFolder& folder) {
  std::vector<std::string> uids;
  const auto bytes = folder.readFile(kVessaToQSConversionNewBackups, kMaxRecordBytes);
  const auto list = bytes ? platform::PropertyList::fromBytes(*bytes) : std::nullopt;
  if (!list || !list->isArray()) return uids;
  for (const platform::Value& item : *list->asArray())
    if (const std::string* uid = item.asString(); uid && isStandardUUID(*uid)) uids.push_back(*uid);
  return uids;
}

bool writeRecord(platform::VolumeFolder& folder, const std::vector<std::string>& uids) {
  // Temporary files of a write that a crash interrupted.
  if (const auto names = folder.entries())
    for (const std::string& name : *names)
      if (platform::VolumeFolder::isTemporaryNameOf(name, kVessaToQSConversionNewBackups)) folder.removeEntry(name);
  if (uids.empty()) return folder.removeEntry(kVessaToQSConversionNewBackups) || errno == ENOENT;
  platform::Array list;
  for (const std::string& uid : uids) list.emplace_back(uid);
  const auto bytes = platform::PropertyList::toBytes(platform::Value(std::move(list)), platform::PropertyList::Format::XML);
  return bytes && folder.writeFileAtomically(kVessaToQSConversionNewBackups, *bytes, 0644);
}

}  // namespace

bool QSVessaConversion::performPathExamination() {
  if (auto folder = volume_->openFolder(kBackupFolderState_Vessa_WillPerformPathExamination)) {
    auto names = folder->entries();
    if (names) {
      std::sort(names->begin(), names->end());
      for (const std::string& name : *names) {
        platform::FileAttributes attributes;
        if (!folder->attributesOf(name, &attributes) || !attributes.isDirectory()) continue;
        if (shouldStop()) return false;
        backedUpComputers_.push_back(VessaComputerBackup::backedUpFilesForComputer_converter(name, this));
      }
    }
  }
  const bool saved = saveCurrentConversionState();
  if (backedUpComputers_.empty()) {
    platform::Log::format("The legacy folder on %s holds no computer", pathToVessaHierarchy_.c_str());
    return false;
  }
  return saved;
}

bool QSVessaConversion::performPathReassignment() {
  for (const auto& computer : backedUpComputers_) computer->performPathReassignment();
  return saveCurrentConversionState();
}

bool QSVessaConversion::constructTargetFolderHierarchy() {
  if (shouldStopBeforeWriting()) return false;
  const std::string stateFolder = currentStateFolder();
  platform::FileAttributes attributes;
  if (stateFolder.empty() || !volume_->attributesAt(stateFolder, &attributes)) return false;
  platform::Dictionary folderAttributes;
  folderAttributes.set("NSFilePosixPermissions", platform::Value::unsignedInteger(attributes.mode & 07777));
  folderAttributes.set("NSFileOwnerAccountID", platform::Value::unsignedInteger(attributes.uid));
  folderAttributes.set("NSFileGroupOwnerAccountID", platform::Value::unsignedInteger(attributes.gid));
  FSCatalogInfo catalog;
  const bool haveCatalog =
      QSCGetCatalogInfo(pathToVessaHierarchy_ + "/" + stateFolder, false, kFSCatInfoSettableInfo, &catalog) == noErr;
  if (!QSCCreateDirectoryIfNeededAndDeleteFileIfNamePresent(qsRootBackupFolderIsPerformingPathMovement(),
                                                            &folderAttributes, haveCatalog ? &catalog : nullptr)) {
    platform::Log::format("Unable to make %s", qsRootBackupFolderIsPerformingPathMovement().c_str());
    return false;
  }
  for (const auto& computer : backedUpComputers_)
    if (!computer->constructTargetFolderHierarchy(kBackupFolderState_QS_IsPerformingPathMovement)) return false;
  return true;
}

bool QSVessaConversion::moveFilesToTargetFolderHierarchy() {
  for (const auto& computer : backedUpComputers_)
    if (!computer->moveFilesToTargetFolderHierarchy(kBackupFolderState_QS_IsPerformingPathMovement)) return false;
  return true;
}

bool QSVessaConversion::performPathMovement() {
  return constructTargetFolderHierarchy() && moveFilesToTargetFolderHierarchy();
}

bool QSVessaConversion::onlyVessaPListAndDSStoreFilesRemain(std::vector<std::string>* remainingFiles) {
  bool clean = true;
  const std::string stateFolder = currentStateFolder();
  for (const auto& computer : backedUpComputers_) {
    if (!computer->computerNeedsConversion()) continue;
    const std::string relative = stateFolder + "/" + computer->computerName();
    auto folder = volume_->openFolder(relative);
    if (!folder) continue;
    if (!walkForRemainingFiles(*folder, relative, *formatter_, pathToVessaHierarchy_, remainingFiles, 0)) {
      clean = false;
      if (!remainingFiles) return false;
    }
  }
  return clean;
}

bool QSVessaConversion::legacyFolderHoldsOnlyLeftovers(const std::string& relative,
                                                       std::vector<std::string>* remainingFiles) {
  auto folder = volume_->openFolder(relative);
  if (!folder) return !volume_->isFolderAt(relative);
  return walkForRemainingFiles(*folder, relative, *formatter_, pathToVessaHierarchy_, remainingFiles, 0);
}

bool QSVessaConversion::trash(const std::string& relative) { return environment_.moveToTrash(*volume_, relative); }

bool QSVessaConversion::trashLegacyFolder(const std::string& relative) {
  std::vector<std::string> remaining;
  if (!legacyFolderHoldsOnlyLeftovers(relative, &remaining)) {
    platform::Log::format("%s/%s is kept: %zu file(s) in it are not converted (%s first)",
                          pathToVessaHierarchy_.c_str(), relative.c_str(), remaining.size(),
                          remaining.empty() ? "" : remaining.front().c_str());
    return false;
  }
  return trash(relative);
}

bool QSVessaConversion::recordNewBackups(const std::string& storageFolder) {
  auto folder = volume_->openFolder(storageFolder);
  if (!folder) return false;
  std::vector<std::string> uids = readRecord(*folder);
  QSVessaConvertedBackups converted;
  for (const auto& computer : backedUpComputers_) computer->backupsConverted(&converted);
  for (const auto& [uid, backup] : converted)
    if (std::find(uids.begin(), uids.end(), uid) == uids.end()) uids.push_back(uid);
  if (uids.empty()) return true;
  return writeRecord(*folder, uids);
}

std::vector<std::string> QSVessaConversion::newBackupsRecorded() const {
  auto folder = volume_->openFolder(kBackupFolderState_QS_Final);
  std::vector<std::string> uids = folder ? readRecord(*folder) : std::vector<std::string>();
  // A backup whose folder never reached the storage folder (clean-up failed) is not there to adopt.
  std::erase_if(uids, [&](const std::string& uid) { return !folder->openChild(uid); });
  return uids;
}

void QSVessaConversion::forgetAdoptedBackups(const std::string& mountPath, const std::vector<std::string>& uids) {
  if (uids.empty()) return;
  auto volume = platform::VolumeTree::open(mountPath);
  auto folder = volume ? volume->openFolder(kBackupFolderState_QS_Final) : nullptr;
  if (!folder) return;
  std::vector<std::string> recorded = readRecord(*folder);
  const size_t before = recorded.size();
  std::erase_if(recorded, [&](const std::string& uid) {
    return std::find(uids.begin(), uids.end(), uid) != uids.end() || !folder->openChild(uid);
  });
  if (recorded.size() != before) writeRecord(*folder, recorded);
}

QSVessaConvertedBackups QSVessaConversion::backupsConverted() const {
  QSVessaConvertedBackups converted;
  for (const auto& computer : backedUpComputers_) computer->backupsConverted(&converted);
  for (const std::string& uid : newBackupsRecorded())
    if (!converted.count(uid)) converted[uid] = QSVessaConvertedBackup{};
  return converted;
}

bool QSVessaConversion::performCleanup(std::vector<std::string>* remainingFiles) {
  if (!onlyVessaPListAndDSStoreFilesRemain(remainingFiles)) {
    platform::Log::format("The legacy folder on %s is kept: %zu file(s) were not moved",
                          pathToVessaHierarchy_.c_str(), remainingFiles ? remainingFiles->size() : size_t{1});
    return true;
  }
  if (shouldStopBeforeWriting()) return false;
  const std::string stateFolder = currentStateFolder();
  const size_t n = backedUpComputers_.size();
  size_t count = 0;
  bool result = true;
  bool partial = false;
  if (!volume_->isFolderAt(kBackupFolderState_QS_Final)) {
    for (const auto& computer : backedUpComputers_) count += computer->computerNeedsConversion() ? 1 : 0;
    if (!recordNewBackups(kBackupFolderState_QS_IsPerformingPathMovement)) return false;
    const int renamed =
        environment_.renameFolder(*volume_, kBackupFolderState_QS_IsPerformingPathMovement, kBackupFolderState_QS_Final);
    if (renamed != 0) {
      platform::Log::format("Unable to rename %s to %s: %s", qsRootBackupFolderIsPerformingPathMovement().c_str(),
                            kBackupFolderState_QS_Final, std::strerror(renamed));
      return false;
    }
  } else {
    if (!recordNewBackups(kBackupFolderState_QS_Final)) return false;
    for (const auto& computer : backedUpComputers_) {
      if (!computer->computerNeedsConversion()) continue;
      for (const auto& user : computer->backedUpUsers()) {
        const std::string uid = user->assignedUUIDForQSBackup();
        const std::string from = std::string(kBackupFolderState_QS_IsPerformingPathMovement) + "/" + uid;
        const std::string to = std::string(kBackupFolderState_QS_Final) + "/" + uid;
        // Moved by an earlier run that stopped before it was done.
        if (!volume_->isFolderAt(from) && volume_->isFolderAt(to)) continue;
        const int moved = environment_.renameFolder(*volume_, from, to);
        if (moved != 0) {
          platform::Log::format("Unable to move the new backup %s into %s: %s", uid.c_str(), kBackupFolderState_QS_Final,
                                std::strerror(moved));
          trash(kBackupFolderState_QS_IsPerformingPathMovement);
          result = false;
          partial = true;
          break;
        }
      }
      if (partial) break;
      ++count;
    }
    if (!partial) trash(kBackupFolderState_QS_IsPerformingPathMovement);
  }
  if (!partial && count == n) {
    if (trashLegacyFolder(stateFolder)) {
      tellDelegate(kBackupFolderState_QS_Final);
      return result;
    }
  }
  for (const auto& computer : backedUpComputers_) computer->performComputerCleanup(stateFolder);
  if (auto folder = volume_->openFolder(stateFolder)) folder->removeEntry(kVessaToQSConversionStateInfo);
  if (stateFolder != kBackupFolderState_Vessa_Initial) {
    const int renamed = environment_.renameFolder(*volume_, stateFolder, kBackupFolderState_Vessa_Initial);
    if (renamed != 0)
      platform::Log::format("Unable to rename %s/%s back to %s: %s", pathToVessaHierarchy_.c_str(), stateFolder.c_str(),
                            kBackupFolderState_Vessa_Initial, std::strerror(renamed));
  }
  tellDelegate(kBackupFolderState_QS_Final);
  return result;
}
