// The names of the legacy layout and of the conversion's states, and the
// rules that read legacy file names.
//
// The older product kept its backups under the folder "QS Tidevault" at the
// root of a volume; the conversion renames that folder as it advances, so
// the name of the folder is the state of the conversion (see
// QSVessaConversion).  Inside, each version of a file carries a time stamp
// before its extension ("report@2010-06-17T11;56;23.txt"), and a per-file
// property list ".Vessa report.txt.plist" describes the versions.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Date.h"

namespace platform {
class DateFormatter;
}

// The folders at the volume root that mark the states 1 to 8.
inline constexpr const char* kBackupFolderState_Vessa_Initial = "QS Tidevault";
inline constexpr const char* kBackupFolderState_Vessa_WillPerformPathExamination =
    "QS Tidevault - WillPerformPathExamination";
inline constexpr const char* kBackupFolderState_Vessa_DidPerformPathExamination =
    "QS Tidevault - DidPerformPathExamination";
inline constexpr const char* kBackupFolderState_Vessa_WillPerformPathReassignment =
    "QS Tidevault - WillPerformPathReassignment";
inline constexpr const char* kBackupFolderState_Vessa_DidPerformPathReassignment =
    "QS Tidevault - DidPerformPathReassignment";
inline constexpr const char* kBackupFolderState_Vessa_WillPerformPathMovement = "QS Tidevault - WillPerformPathMovement";
inline constexpr const char* kBackupFolderState_Vessa_DidPerformPathMovement = "QS Tidevault - DidPerformPathMovement";
inline constexpr const char* kBackupFolderState_QS_Final = "qs skerrow.skstor";
// The target tree while files are moved into it (not a state of its own).
inline constexpr const char* kBackupFolderState_QS_IsPerformingPathMovement =
    "qs skerrow.skstor - IsPerformingPathMovement";
// What clients are told when a volume holds legacy backups that cannot be
// converted now; the reason follows the prefix.
inline constexpr const char* kBackupFolderState_Vessa_NotConverted = "QS Tidevault - NotConverted: ";

// The saved model of the conversion, inside the current state folder.
inline constexpr const char* kVessaToQSConversionStateInfo = ".vessaToQSConversionStateInfo";
// The identifiers of converted backups not yet adopted by the engine, kept
// in the storage folder until the engine has taken them over.
inline constexpr const char* kVessaToQSConversionNewBackups = ".vessaToQSConversionNewBackups";
// The sub-path that names a state folder itself.
inline constexpr const char* kRootFolderOfBackupFolder = "";

// Per-file property lists and plan settings.
inline constexpr const char* kVessaPListPrefix = ".Vessa ";
inline constexpr const char* kVessaPListSuffix = ".plist";
inline constexpr const char* kVessaBackupPlanSettings = ".VessaBackupPlanSettings.plist";
inline constexpr const char* kVessaPlanSettingsNumberOfVersions = "DeviceInfo.numberOfVersions";
inline constexpr const char* kVessaPlanSettingsExclusionDirectories = "ExclusionFilters.directory";
inline constexpr const char* kVessaPListCreateDate = "createDate";
inline constexpr const char* kVessaPListLastModifiedDate = "lastModifiedDate";
inline constexpr const char* kVessaPListCreationDate = "creationDate";

// Version time stamps.
inline constexpr const char* sVessaTimeStampFormatterString = "'@'yyyy'-'MM'-'dd'T'HH';'mm';'ss";
inline constexpr const char* sVessaTimeStampExampleString = "@2010-06-17T11;56;23";

inline constexpr size_t kLengthOfVessaPListPrefix = std::string_view(".Vessa ").size();
inline constexpr size_t kLengthOfVessaPListSuffix = std::string_view(".plist").size();
inline constexpr size_t kMinimumLengthOfVessaPListFilename = kLengthOfVessaPListPrefix + kLengthOfVessaPListSuffix;
inline constexpr size_t kLengthOfVessaTimeStampString = std::string_view("@2010-06-17T11;56;23").size();

// The category folders of a legacy user folder, in this order.
inline constexpr const char* kBackupCategory_Documents = "Documents";
inline constexpr const char* kBackupCategory_Mail = "Mail";
inline constexpr const char* kBackupCategory_Movies = "Movies";
inline constexpr const char* kBackupCategory_Music = "Music";
inline constexpr const char* kBackupCategory_Other = "Other";
inline constexpr const char* kBackupCategory_Pictures = "Pictures";
inline constexpr std::array<const char*, 6> sCategoryFolderNames = {
    kBackupCategory_Documents, kBackupCategory_Mail,  kBackupCategory_Movies,
    kBackupCategory_Music,     kBackupCategory_Other, kBackupCategory_Pictures,
};

// Whether `name` is a per-file property list (".Vessa " + file name +
// ".plist", at least 13 characters); the file's own name goes to `fileName`.
bool IsFileAVessaPList(const std::string& name, std::string* fileName = nullptr);
// Whether `name` is the plan settings file.
bool IsVessaBackupPlanSettings(const std::string& name);
// Whether `name` is the state file.
bool IsVessaToQSConversionStateInfo(const std::string& name);
// Whether the file `name` is one the conversion may remove: a per-file
// property list, the plan settings, the state file, or a temporary file left
// by an interrupted write of the state file.
bool IsVessaConversionLeftover(const std::string& name);

// The file name without its version time stamp, and the stamp's date in
// `date` (nothing when the name carries no stamp, when what stands where the
// stamp would be does not parse as one, or when the name is a stamp alone).
std::string SeparateVessaVersionInfoFromFileName(const std::string& name, const platform::DateFormatter& formatter,
                                                 std::optional<platform::Date>* date);

// Whether the engine's black list rejects the (stamp-free) file name, so
// that the file is not converted although the older product kept it.
bool IsFileBlackListedByQSBackupButWasNotByVessaBackup(const std::string& fileName);
