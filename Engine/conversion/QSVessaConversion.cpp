// The conversion's state: detection, the state file, the renames and the driver.
#include "Engine/conversion/QSVessaConversion.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "Engine/conversion/QSVessaConversionStrings.h"
#include "Engine/conversion/QSVessaStateArchive.h"
#include "platform/Log.h"
#include "platform/OVThread.h"
#include "platform/PropertyList.h"

namespace {

constexpr int32_t kStateNone = 0;
constexpr int32_t kStateInitial = 1;
constexpr int32_t kStateWillExamine = 2;
constexpr int32_t kStateDidExamine = 3;
constexpr int32_t kStateWillReassign = 4;
constexpr int32_t kStateDidReassign = 5;
constexpr int32_t kStateWillMove = 6;
constexpr int32_t kStateDidMove = 7;
constexpr int32_t kStateFinal = 8;

constexpr const char* kStateFolders[] = {
    "",
    kBackupFolderState_Vessa_Initial,
    kBackupFolderState_Vessa_WillPerformPathExamination,
    kBackupFolderState_Vessa_DidPerformPathExamination,
    kBackupFolderState_Vessa_WillPerformPathReassignment,
    kBackupFolderState_Vessa_DidPerformPathReassignment,
    kBackupFolderState_Vessa_WillPerformPathMovement,
    kBackupFolderState_Vessa_DidPerformPathMovement,
    kBackupFolderState_QS_Final,
};

// How often the moves ask whether the volume is still the mount they work on.
constexpr std::chrono::milliseconds kMountCheckInterval{20};
// How often a conversion waiting for another one on the same volume looks again.
constexpr std::chrono::milliseconds kLockPollInterval{50};

// A state file larger than this was not written by a conversion.
constexpr size_t kMaxStateFileBytes = 256u * 1024u * 1024u;

}  // namespace

QSVessaConversion::QSVessaConversion(std::string path, QSBackupConverterDelegate* delegate,
                                     QSVessaConversionEnvironment environment,
                                     std::unique_ptr<platform::DateFormatter> formatter,
                                     std::unique_ptr<platform::VolumeTree> volume)
    : pathToVessaHierarchy_(std::move(path)),
      delegate_(delegate),
      formatter_(std::move(formatter)),
      environment_(std::move(environment)),
      volume_(std::move(volume)) {}

std::unique_ptr<QSVessaConversion> QSVessaConversion::initWithPath_delegate(const std::string& path,
                                                                           QSBackupConverterDelegate* delegate,
                                                                           QSVessaConversionEnvironment environment) {
  if (path.empty()) return nullptr;
  auto formatter = platform::DateFormatter::withPattern(sVessaTimeStampFormatterString);
  if (!formatter) return nullptr;
  auto volume = platform::VolumeTree::open(path);
  if (!volume) return nullptr;
  return std::make_unique<QSVessaConversion>(path, delegate, std::move(environment), std::move(formatter),
                                             std::move(volume));
}

std::string QSVessaConversion::folderNameForState(int32_t state) {
  return state >= kStateInitial && state <= kStateFinal ? kStateFolders[state] : "";
}

std::string QSVessaConversion::converterState() const {
  std::lock_guard<std::mutex> lock(lock_);
  if (!refusal_.empty()) return refusal_;
  return folderNameForState(private_currentStateOfConversion);
}

int32_t QSVessaConversion::currentStateOfConversion() const {
  std::lock_guard<std::mutex> lock(lock_);
  return private_currentStateOfConversion;
}

void QSVessaConversion::setCurrentStateOfConversion(int32_t state) {
  std::lock_guard<std::mutex> lock(lock_);
  private_currentStateOfConversion = state;
}

std::optional<std::string> QSVessaConversion::vessaRootBackupFolderPathWithSubPath_forConversionState(
    const std::string& subPath, int32_t state) const {
  if (state < kStateInitial || state > kStateFinal) return std::nullopt;
  std::string path = pathToVessaHierarchy_ + "/" + kStateFolders[state];
  if (!subPath.empty()) path += "/" + subPath;
  return path;
}

std::optional<std::string> QSVessaConversion::currentVessaRootBackupFolderPathWithSubPath(
    const std::string& subPath) const {
  return vessaRootBackupFolderPathWithSubPath_forConversionState(subPath, currentStateOfConversion());
}

std::string QSVessaConversion::vessaRootBackupFolder() const { return pathToVessaHierarchy_ + "/" + kStateFolders[1]; }
std::string QSVessaConversion::vessaRootBackupFolderWillPerformPathExamination() const {
  return pathToVessaHierarchy_ + "/" + kStateFolders[2];
}
std::string QSVessaConversion::vessaRootBackupFolderDidPerformPathExamination() const {
  return pathToVessaHierarchy_ + "/" + kStateFolders[3];
}
std::string QSVessaConversion::vessaRootBackupFolderWillPerformPathReassignment() const {
  return pathToVessaHierarchy_ + "/" + kStateFolders[4];
}
std::string QSVessaConversion::vessaRootBackupFolderDidPerformPathReassignment() const {
  return pathToVessaHierarchy_ + "/" + kStateFolders[5];
}
std::string QSVessaConversion::vessaRootBackupFolderWillPerformPathMovement() const {
  return pathToVessaHierarchy_ + "/" + kStateFolders[6];
}
std::string QSVessaConversion::vessaRootBackupFolderDidPerformPathMovement() const {
  return pathToVessaHierarchy_ + "/" + kStateFolders[7];
}
std::string QSVessaConversion::qsRootBackupFolder() const { return pathToVessaHierarchy_ + "/" + kStateFolders[8]; }
std::string QSVessaConversion::qsRootBackupFolderIsPerformingPathMovement() const {
  return pathToVessaHierarchy_ + "/" + kBackupFolderState_QS_IsPerformingPathMovement;
}

int32_t QSVessaConversion::detectStateOfConversion() const {
  for (int32_t state = kStateInitial; state <= kStateDidMove; ++state)
    if (volume_->isFolderAt(kStateFolders[state])) return state;
  return volume_->isFolderAt(kBackupFolderState_QS_Final) ? kStateFinal : kStateNone;
}

int32_t QSVessaConversion::acquireCurrentStateOfConversion() {
  const int32_t found = detectStateOfConversion();
  setCurrentStateOfConversion(restoreCurrentConversionState(found));
  return found;
}

int32_t QSVessaConversion::restoreCurrentConversionState(int32_t state) {
  if (state == kStateFinal) return kStateFinal;
  const std::string folderName = folderNameForState(state);
  auto folder = folderName.empty() ? nullptr : volume_->openFolder(folderName);
  platform::FileAttributes attributes;
  if (!folder || !folder->attributesOf(kVessaToQSConversionStateInfo, &attributes) || attributes.isDirectory()) {
    for (const auto& computer : backedUpComputers_) computer->setVessConverter(this);
    return state;
  }
  // Temporary files of a save that a crash interrupted.
  if (const auto names = folder->entries())
    for (const std::string& name : *names)
      if (platform::VolumeFolder::isTemporaryNameOf(name, kVessaToQSConversionStateInfo)) folder->removeEntry(name);
  if (state > kStateWillExamine) {
    const auto bytes = folder->readFile(kVessaToQSConversionStateInfo, kMaxStateFileBytes);
    auto computers = bytes ? QSVessaStateArchive::unarchiveObjectWithData(*bytes) : std::nullopt;
    if (computers) {
      backedUpComputers_ = std::move(*computers);
      for (const auto& computer : backedUpComputers_) computer->setVessConverter(this);
      return state;
    }
    platform::Log::format("The conversion state in %s/%s cannot be read; the conversion starts over",
                          pathToVessaHierarchy_.c_str(), folderName.c_str());
  }
  folder->removeEntry(kVessaToQSConversionStateInfo);
  folder.reset();
  if (state != kStateInitial) {
    const int result = environment_.renameFolder(*volume_, folderName, kBackupFolderState_Vessa_Initial);
    if (result != 0)
      platform::Log::format("Unable to rename %s/%s back to %s: %s", pathToVessaHierarchy_.c_str(), folderName.c_str(),
                            kBackupFolderState_Vessa_Initial, std::strerror(result));
  }
  return kStateInitial;
}

bool QSVessaConversion::saveCurrentConversionState() {
  const std::string folderName = currentStateFolder();
  if (folderName.empty() || shouldStopBeforeWriting()) return false;
  auto folder = volume_->openFolder(folderName);
  const auto bytes = QSVessaStateArchive::archivedDataWithRootObject(backedUpComputers_);
  if (!folder || !bytes || !folder->writeFileAtomically(kVessaToQSConversionStateInfo, *bytes, 0600)) {
    platform::Log::format("Unable to save the conversion state in %s/%s", pathToVessaHierarchy_.c_str(),
                          folderName.c_str());
    return false;
  }
  return true;
}

void QSVessaConversion::tellDelegate(const std::string& state) {
  if (delegate_) delegate_->conversionChangedState_forMountPath(state, pathToVessaHierarchy_);
}

bool QSVessaConversion::transition(int32_t from, int32_t to) {
  int result = ECANCELED;
  if (!shouldStopBeforeWriting()) result = environment_.renameFolder(*volume_, kStateFolders[from], kStateFolders[to]);
  if (result == 0) setCurrentStateOfConversion(to);
  tellDelegate(kStateFolders[to]);
  if (result != 0)
    platform::Log::format("Unable to rename %s/%s to %s: %s", pathToVessaHierarchy_.c_str(), kStateFolders[from],
                          kStateFolders[to], std::strerror(result));
  return result == 0;
}

bool QSVessaConversion::convertToWillPerformPathExamination() { return transition(kStateInitial, kStateWillExamine); }
bool QSVessaConversion::convertToDidPerformPathExamination() { return transition(kStateWillExamine, kStateDidExamine); }
bool QSVessaConversion::convertToWillPerformPathReassignment() {
  return transition(kStateDidExamine, kStateWillReassign);
}
bool QSVessaConversion::convertToDidPerformPathReassignment() {
  return transition(kStateWillReassign, kStateDidReassign);
}
bool QSVessaConversion::convertToWillPerformPathMovement() { return transition(kStateDidReassign, kStateWillMove); }
bool QSVessaConversion::convertToDidPerformPathMovement() {
  // Every file moved must be on the disk before the name says so.
  volume_->synchronize();
  return transition(kStateWillMove, kStateDidMove);
}

bool QSVessaConversion::shouldStop() {
  const bool cancelled = platform::OVThread::currentThread()->isCancelled();
  // Asking the mount costs two kernel calls: once per interval is enough
  // between moves (every write that could land elsewhere asks on its own).
  const auto now = std::chrono::steady_clock::now();
  bool gone = volumeGone_;
  if (!cancelled && !gone && now - lastMountCheck_ >= kMountCheckInterval) {
    lastMountCheck_ = now;
    gone = volumeGone_ = !volume_->isStillMounted();
  }
  if ((cancelled || gone) && !stopLogged_) {
    stopLogged_ = true;
    platform::Log::format("The conversion on %s stops: %s", pathToVessaHierarchy_.c_str(),
                          cancelled ? "it was cancelled" : "the volume is no longer mounted there");
  }
  return cancelled || gone;
}

bool QSVessaConversion::shouldStopBeforeWriting() {
  lastMountCheck_ = {};
  return shouldStop();
}

void QSVessaConversion::noteKeptInLegacyTree(const std::string& relativePath, const std::string& why) {
  ++statistics_.versionsKeptInLegacyTree;
  platform::Log::format("The legacy file %s/%s stays where it is: %s", pathToVessaHierarchy_.c_str(),
                        relativePath.c_str(), why.c_str());
}

std::optional<QSVessaConvertedBackups> QSVessaConversion::convertVessaHierarchy(
    std::vector<std::string>* remainingFiles) {
  if (remainingFiles) remainingFiles->clear();
  {
    std::lock_guard<std::mutex> lock(lock_);
    refusal_.clear();
  }
  const auto fail = [this] {
    setCurrentStateOfConversion(kStateFinal);
    platform::Log::format("The conversion of the legacy backups on %s did not finish; it resumes at the next mount",
                          pathToVessaHierarchy_.c_str());
    return std::nullopt;
  };
  // One conversion of a volume at a time: a conversion still at work on it
  // (the disk pulled and plugged in again before it noticed) is waited for.
  for (bool waitLogged = false; volume_->tryLock() == platform::VolumeTree::Lock::Busy;) {
    if (shouldStop()) return std::nullopt;
    if (!waitLogged)
      platform::Log::format("Another conversion works on %s; waiting for it to end", pathToVessaHierarchy_.c_str());
    waitLogged = true;
    std::this_thread::sleep_for(kLockPollInterval);
  }
  const int32_t found = detectStateOfConversion();
  if (found == kStateNone || found == kStateFinal) {
    setCurrentStateOfConversion(restoreCurrentConversionState(found));
  } else {
    platform::Log::format("Legacy backups on %s: %s", pathToVessaHierarchy_.c_str(), kStateFolders[found]);
    std::string why;
    if (!volumeAllowsConversion(found, &why)) {
      platform::Log::format("The legacy backups on %s are not converted: %s", pathToVessaHierarchy_.c_str(),
                            why.c_str());
      {
        std::lock_guard<std::mutex> lock(lock_);
        refusal_ = kBackupFolderState_Vessa_NotConverted + why;
        private_currentStateOfConversion = kStateFinal;
      }
      tellDelegate(kBackupFolderState_Vessa_NotConverted + why);
      return std::nullopt;
    }
    setCurrentStateOfConversion(restoreCurrentConversionState(found));
    const int32_t s = found;
    if (s == kStateInitial) {
      setCurrentStateOfConversion(kStateInitial);
      if (!convertToWillPerformPathExamination()) return fail();
    }
    if (s <= kStateWillExamine) {
      if (!performPathExamination()) return fail();
      if (!convertToDidPerformPathExamination()) {
        setCurrentStateOfConversion(kStateFinal);
        return std::nullopt;
      }
    }
    if (s <= kStateDidExamine && !convertToWillPerformPathReassignment()) return fail();
    if (s <= kStateWillReassign) {
      if (!performPathReassignment()) return fail();
      if (!convertToDidPerformPathReassignment()) {
        setCurrentStateOfConversion(kStateFinal);
        return std::nullopt;
      }
    }
    if (s <= kStateDidReassign && !convertToWillPerformPathMovement()) return fail();
    if (s <= kStateWillMove) {
      if (!performPathMovement()) return fail();
      if (!convertToDidPerformPathMovement()) {
        setCurrentStateOfConversion(kStateFinal);
        return std::nullopt;
      }
    }
    if (!performCleanup(remainingFiles)) return fail();
    setCurrentStateOfConversion(kStateFinal);
  }
  if (currentStateOfConversion() != kStateFinal) return std::nullopt;
  QSVessaConvertedBackups converted = backupsConverted();
  if (found != kStateNone && found != kStateFinal)
    platform::Log::format("The conversion of the legacy backups on %s ended: %zu new backups, %llu versions moved, "
                          "%llu found moved already, %llu left in the legacy folder",
                          pathToVessaHierarchy_.c_str(), converted.size(),
                          static_cast<unsigned long long>(statistics_.versionsMoved),
                          static_cast<unsigned long long>(statistics_.versionsAlreadyMoved),
                          static_cast<unsigned long long>(statistics_.versionsKeptInLegacyTree));
  return converted;
}
