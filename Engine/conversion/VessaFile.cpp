#include "Engine/conversion/VessaFile.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include "Engine/conversion/QSVessaArchiving.h"
#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/conversion/QSVessaConversionStrings.h"
#include "Engine/records/QSVersionName.h"
#include "platform/Log.h"
#include "platform/VolumeFolder.h"

namespace {

std::optional<platform::Date> dateForKey(const platform::Value& entry, const char* key) {
  const platform::Dictionary* dictionary = entry.asDictionary();
  const platform::Value* value = dictionary ? dictionary->find(key) : nullptr;
  const platform::Date* date = value ? value->asDate() : nullptr;
  if (!date) return std::nullopt;
  return *date;
}

platform::FileTime fileTimeOf(platform::Date date) {
  const double seconds = date.timeIntervalSince1970();
  const double whole = std::floor(seconds);
  platform::FileTime time;
  time.seconds = static_cast<int64_t>(whole);
  time.nanoseconds = static_cast<uint32_t>(std::llround((seconds - whole) * 1e9) % 1000000000);
  return time;
}

std::string joined(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

}  // namespace

void VessaFile::addVersion(const std::string& legacyName, std::optional<platform::Date> timeStamp) {
  versionsOfFile_.push_back(legacyName);
  timeStamps_.push_back(timeStamp);
  lastModifiedDates_.push_back(std::nullopt);
}

void VessaFile::performPathReassignmentWithOriginalName(const std::string& name) {
  if (!vessaPropertyList_) return;
  const size_t n = versionsOfFile_.size();
  const size_t m = versionsOfFileForQSBackup_.size();
  if (n <= m) return;
  if (m == 0) cleanUpVersionsOfFile();
  for (size_t i = m; i < n; ++i) versionsOfFileForQSBackup_.push_back(QSVersionName(name, i));
}

void VessaFile::cleanUpVersionsOfFile() {
  if (!vessaPropertyList_) return;
  const size_t n = versionsOfFile_.size();
  std::vector<bool> taken(n, false);
  std::vector<std::string> versions;
  std::vector<std::optional<platform::Date>> stamps, modified;
  const platform::Array& entries = *vessaPropertyList_;
  for (size_t k = 0; k < entries.size(); ++k) {
    const std::optional<platform::Date> lastModified = dateForKey(entries[k], kVessaPListLastModifiedDate);
    const std::optional<platform::Date> creation = dateForKey(entries[k], kVessaPListCreationDate);
    // The last entry is the current copy, the one without a stamp.
    const bool last = k + 1 == entries.size();
    std::optional<size_t> found;
    for (size_t i = 0; i < n && !found; ++i) {
      if (last ? !timeStamps_[i].has_value() : (creation && timeStamps_[i] && *timeStamps_[i] == *creation))
        found = i;
    }
    if (!found || taken[*found]) continue;
    taken[*found] = true;
    versions.push_back(versionsOfFile_[*found]);
    stamps.push_back(timeStamps_[*found]);
    modified.push_back(lastModified);
  }
  for (size_t i = 0; i < n; ++i) {
    if (taken[i]) continue;
    versions.push_back(versionsOfFile_[i]);
    stamps.push_back(timeStamps_[i]);
    modified.push_back(lastModifiedDates_[i]);
  }
  versionsOfFile_ = std::move(versions);
  timeStamps_ = std::move(stamps);
  lastModifiedDates_ = std::move(modified);
}

bool VessaFile::moveFilesToTargetFolderHierarchy_objectKey_relativePathToSourceFolder(const VessaPlace& target,
                                                                                      const std::string& objectKey,
                                                                                      const VessaPlace& source) {
  (void)objectKey;
  QSVessaConversion::Statistics& statistics = converter_->statistics();
  for (size_t i = 0; i < versionsOfFile_.size(); ++i) {
    const std::string& legacyName = versionsOfFile_[i];
    std::string targetName;
    std::optional<platform::Date> date;
    if (i < versionsOfFileForQSBackup_.size()) {
      targetName = versionsOfFileForQSBackup_[i];
      date = lastModifiedDates_[i];
    } else {
      if (IsFileAVessaPList(legacyName) || IsVessaBackupPlanSettings(legacyName) ||
          IsVessaToQSConversionStateInfo(legacyName) || IsFileBlackListedByQSBackupButWasNotByVessaBackup(objectKey))
        continue;
      targetName = legacyName;
    }
    const int result = source.folder.moveEntry(legacyName, target.folder, targetName, false);
    if (result == ENOENT) {
      // Gone from the legacy folder.  Moved by an earlier, interrupted run:
      // its date is set again, as the run may have stopped between the move
      // and the date.  Otherwise a missing source is skipped.
      platform::FileAttributes moved;
      if (target.folder.attributesOf(targetName, &moved)) {
        ++statistics.versionsAlreadyMoved;
        if (date) target.folder.setModificationTime(targetName, fileTimeOf(*date));
      }
      continue;
    }
    if (result == EEXIST) {
      converter_->noteKeptInLegacyTree(joined(source.relativePath, legacyName),
                                       "its new name " + joined(target.relativePath, targetName) + " is taken");
      continue;
    }
    if (result != 0) {
      platform::Log::format("Unable to move %s to %s: %s", joined(source.relativePath, legacyName).c_str(),
                            joined(target.relativePath, targetName).c_str(), std::strerror(result));
      return false;
    }
    ++statistics.versionsMoved;
    if (date) target.folder.setModificationTime(targetName, fileTimeOf(*date));
  }
  return true;
}

platform::Dictionary VessaFile::archive() const {
  platform::Dictionary archive = vessa_archive::objectOfClass(kClassName);
  archive.set("relativePathToFile", platform::Value(relativePathToFile_));
  archive.set("vessaPropertyList", vessaPropertyList_ ? platform::Value(*vessaPropertyList_) : vessa_archive::null());
  archive.set("versionsOfFile", vessa_archive::strings(versionsOfFile_));
  archive.set("timeStampsOfVersionsOfFile", vessa_archive::datesOrNulls(timeStamps_));
  archive.set("lastModifiedDatesOfVersionsOfFile", vessa_archive::datesOrNulls(lastModifiedDates_));
  archive.set("versionsOfFileForQSBackup", vessa_archive::strings(versionsOfFileForQSBackup_));
  return archive;
}

std::shared_ptr<VessaFile> VessaFile::initWithArchive(const platform::Dictionary& archive) {
  std::string relative;
  if (!vessa_archive::decodeString(archive, "relativePathToFile", &relative) || !vessa_archive::isRelativePath(relative))
    return nullptr;
  auto file = std::make_shared<VessaFile>(relative);
  const platform::Value* list = archive.find("vessaPropertyList");
  if (!list) return nullptr;
  if (!vessa_archive::isNull(*list)) {
    if (!list->isArray()) return nullptr;
    file->vessaPropertyList_ = list->array();
  }
  if (!vessa_archive::decodeStrings(archive, "versionsOfFile", &file->versionsOfFile_) ||
      !vessa_archive::decodeDatesOrNulls(archive, "timeStampsOfVersionsOfFile", &file->timeStamps_) ||
      !vessa_archive::decodeDatesOrNulls(archive, "lastModifiedDatesOfVersionsOfFile", &file->lastModifiedDates_) ||
      !vessa_archive::decodeStrings(archive, "versionsOfFileForQSBackup", &file->versionsOfFileForQSBackup_))
    return nullptr;
  const size_t n = file->versionsOfFile_.size();
  if (file->timeStamps_.size() != n || file->lastModifiedDates_.size() != n ||
      file->versionsOfFileForQSBackup_.size() > n)
    return nullptr;
  for (const std::string& name : file->versionsOfFile_)
    if (!vessa_archive::isEntryName(name)) return nullptr;
  for (const std::string& name : file->versionsOfFileForQSBackup_)
    if (!vessa_archive::isEntryName(name)) return nullptr;
  return file;
}
