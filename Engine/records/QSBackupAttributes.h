// The backup attribute dictionary: the keys shared by every stored or
// transmitted backup record, and typed accessors over a property-list
// dictionary that holds them.
//
// A read of a missing key (or of a value of the wrong kind) yields nothing
// for objects, 0 for numbers and false for booleans; no other defaults are
// applied here.  Setters store the value under the key, numbers as number
// values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Value.h"

// Keys of the attribute dictionary.
inline constexpr const char* kUID = "backup-uid";
inline constexpr const char* kQSBackupPlistKey_SourceFormat = "source-format";
inline constexpr const char* kMachineName = "machine";
inline constexpr const char* kLongName = "long-name";
inline constexpr const char* kShortName = "short-name";
inline constexpr const char* kHomeDir = "home";
inline constexpr const char* kManagedCategories = "managed-categories";
inline constexpr const char* kScheduledState = "scheduled";
inline constexpr const char* kPersistentState = "persistent";
inline constexpr const char* kMountPoint = "mount-point";
inline constexpr const char* kBSDName = "bsd-name";
inline constexpr const char* kCompletionDate = "completion-date";
inline constexpr const char* kPeriod = "period";
inline constexpr const char* kVersionDepth = "version-depth";
inline constexpr const char* kExclusionFilterDirectory = "exclusion-filter-directory";

// The only source format written.
inline constexpr const char* kQSBackupPlistKey_SourceFormat_HFSPlus = "hfs+";

// The same keys under the names the legacy conversion uses, and its further values.
inline constexpr const char* kQSBackupPlistKey_Home = "home";
inline constexpr const char* kQSBackupPlistKey_LongUsername = "long-name";
inline constexpr const char* kQSBackupPlistKey_Machine = "machine";
inline constexpr const char* kQSBackupPlistKey_CompletionDate = "completion-date";
inline constexpr const char* kQSBackupPlistKey_Period = "period";
inline constexpr const char* kQSBackupPlistKey_Scheduled = "scheduled";
inline constexpr const char* kQSBackupPlistKey_ShortUsername = "short-name";
inline constexpr const char* kQSBackupPlistKey_BackupUUID = "backup-uid";
inline constexpr const char* kQSBackupPlistKey_ManagedCategories = "managed-categories";
inline constexpr const char* kQSBackupPlistKey_VersionDepth = "version-depth";
inline constexpr const char* kQSBackupPlistKey_ExclusionFilterDirectory = "exclusion-filter-directory";
inline constexpr const char* kQSBackupPlistKey_ManagedCategories_Identifier = "identifier";
inline constexpr const char* kQSBackupPlistKey_ManagedCategories_Scheduled = "scheduled";
inline constexpr const char* kQSBackupPlistKey_ManagedCategories_UserPausePreference = "userPausePreference";
inline constexpr const char* kQSBackupPlistKey_ManagedCategories_UserInfo = "user-info";
inline constexpr const char* kQSBackupPlistKey_SourceFormat_NTFS = "ntfs";
inline constexpr const char* kQSBackupPlistKey_SourceFormat_FAT32 = "fat32";

// Storage layout on a backup volume, and the database file.
inline constexpr const char* kBackupDestinationDirectoryName = "qs skerrow.skstor";
inline constexpr const char* kMetadataFileName = ".com.qsc.backupinfo";
inline constexpr const char* kBackupDatabaseFile = "backupdb.plist";

// Extended attributes of a backup folder.
inline constexpr const char* kExtAttrKeyForBackupAttributesV1 = "com.qsc.backup.attributes.v1";
inline constexpr const char* kExtAttrKeyForGUID = "com.qsc.backup.uid";

// Typed reading of an attribute dictionary.
class QSBackupAttributes {
 public:
  explicit QSBackupAttributes(const platform::Dictionary& dictionary) : dictionary_(dictionary) {}

  static const char* sourceFormatHFSPlus() { return kQSBackupPlistKey_SourceFormat_HFSPlus; }

  std::optional<std::string> uid() const { return stringForKey(kUID); }
  std::optional<std::string> sourceFormat() const { return stringForKey(kQSBackupPlistKey_SourceFormat); }
  bool isSourceFormatHFSPlus() const;
  std::optional<std::string> machineName() const { return stringForKey(kMachineName); }
  std::optional<std::string> longUserName() const { return stringForKey(kLongName); }
  std::optional<std::string> shortUserName() const { return stringForKey(kShortName); }
  std::optional<std::string> userHome() const { return stringForKey(kHomeDir); }
  std::optional<platform::Array> managedCategories() const;
  bool isScheduled() const { return booleanForKey(kScheduledState); }
  bool isPersistent() const { return booleanForKey(kPersistentState); }
  std::optional<std::string> mountPoint() const { return stringForKey(kMountPoint); }
  std::optional<std::string> BSDName() const { return stringForKey(kBSDName); }
  std::optional<platform::Date> completionDate() const;
  double period() const;
  uint32_t versionDepth() const;
  std::optional<std::string> exclusionFilterDirectory() const { return stringForKey(kExclusionFilterDirectory); }

  std::optional<std::string> stringForKey(const char* key) const;
  bool booleanForKey(const char* key) const;

 private:
  const platform::Dictionary& dictionary_;
};

// Typed writing of an attribute dictionary.
class QSMutableBackupAttributes : public QSBackupAttributes {
 public:
  explicit QSMutableBackupAttributes(platform::Dictionary& dictionary)
      : QSBackupAttributes(dictionary), mutable_(dictionary) {}

  void setUID(const std::string& v) { mutable_.set(kUID, v); }
  void setSourceFormatHFSPlus() { mutable_.set(kQSBackupPlistKey_SourceFormat, kQSBackupPlistKey_SourceFormat_HFSPlus); }
  void setMachineName(const std::string& v) { mutable_.set(kMachineName, v); }
  void setLongUserName(const std::string& v) { mutable_.set(kLongName, v); }
  void setShortUserName(const std::string& v) { mutable_.set(kShortName, v); }
  void setUserHome(const std::string& v) { mutable_.set(kHomeDir, v); }
  void setManagedCategories(const platform::Array& v) { mutable_.set(kManagedCategories, v); }
  void setScheduled(bool v) { mutable_.set(kScheduledState, platform::Value::boolean(v)); }
  void setPersistent(bool v) { mutable_.set(kPersistentState, platform::Value::boolean(v)); }
  void setMountPoint(const std::string& v) { mutable_.set(kMountPoint, v); }
  void setBSDName(const std::string& v) { mutable_.set(kBSDName, v); }
  void setCompletionDate(platform::Date v) { mutable_.set(kCompletionDate, v); }
  void setPeriod(double v) { mutable_.set(kPeriod, platform::Value::real(v)); }
  void setVersionDepth(uint32_t v) { mutable_.set(kVersionDepth, platform::Value::unsignedInteger(v)); }
  void setExclusionFilterDirectory(const std::string& v) { mutable_.set(kExclusionFilterDirectory, v); }

 private:
  platform::Dictionary& mutable_;
};
