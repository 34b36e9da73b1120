#include "Engine/conversion/QSVessaConversionStrings.h"

#include "Engine/files/QSBlackList.h"
#include "Engine/records/QSVersionName.h"
#include "platform/DateFormatter.h"
#include "platform/VolumeFolder.h"

bool IsFileAVessaPList(const std::string& name, std::string* fileName) {
  if (name.size() < kMinimumLengthOfVessaPListFilename) return false;
  if (name.compare(0, kLengthOfVessaPListPrefix, kVessaPListPrefix) != 0) return false;
  if (name.compare(name.size() - kLengthOfVessaPListSuffix, kLengthOfVessaPListSuffix, kVessaPListSuffix) != 0)
    return false;
  if (fileName)
    *fileName = name.substr(kLengthOfVessaPListPrefix,
                            name.size() - kLengthOfVessaPListPrefix - kLengthOfVessaPListSuffix);
  return true;
}

bool IsVessaBackupPlanSettings(const std::string& name) { return name == kVessaBackupPlanSettings; }

bool IsVessaToQSConversionStateInfo(const std::string& name) { return name == kVessaToQSConversionStateInfo; }

bool IsVessaConversionLeftover(const std::string& name) {
  return IsFileAVessaPList(name) || IsVessaBackupPlanSettings(name) || IsVessaToQSConversionStateInfo(name) ||
         platform::VolumeFolder::isTemporaryNameOf(name, kVessaToQSConversionStateInfo);
}

std::string SeparateVessaVersionInfoFromFileName(const std::string& name, const platform::DateFormatter& formatter,
                                                 std::optional<platform::Date>* date) {
  *date = std::nullopt;
  if (name.size() < kLengthOfVessaTimeStampString) return name;
  std::string body, extension;
  parseBody_extension(name, &body, &extension);
  if (body.size() < kLengthOfVessaTimeStampString) return name;
  const std::string before = body.substr(0, body.size() - kLengthOfVessaTimeStampString);
  const auto parsed = formatter.dateFromString(body.substr(before.size()));
  if (!parsed) return name;
  // A name that is a stamp and nothing else names no file.
  if (before.empty() && extension.empty()) return name;
  *date = parsed;
  return before + extension;
}

bool IsFileBlackListedByQSBackupButWasNotByVessaBackup(const std::string& fileName) {
  return QSBlackList::isFilenameBlacklisted(fileName);
}
