// One legacy user's backup on one computer: its categories, the new backup
// identifier it gets, and the new backup's information list.
//
// The identifier is made on first use (a time-based UUID in upper-case
// text) together with the basic information list.  Moving the user's files
// fills the target folder named by the identifier and writes the list there
// as ".com.qsc.backupinfo" (an XML property list, written atomically).
//
// Managed categories of the information list: each category the legacy
// backup kept is scheduled, and the other categories of the engine are
// added unscheduled, so the new backup names all six (each with an empty
// "user-info"); a user without categories gets no "managed-categories".
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Engine/conversion/VessaCategoryBackup.h"

class QSVessaConversion;

// What a converted backup reports to the driver.
struct QSVessaConvertedBackup {
  std::optional<std::vector<std::string>> categories;
  int32_t zeroBasedNumberOfBackupVersionsToKeep = 0;
};
using QSVessaConvertedBackups = std::map<std::string, QSVessaConvertedBackup>;

class VessaUserBackup {
 public:
  static constexpr const char* kClassName = "VessaUserBackup";

  // A user whose folder `pathRelativeToVessaFolder` ("computer/user") lists
  // its categories: each category folder that holds the plan settings.
  static std::shared_ptr<VessaUserBackup> backedUpCategoriesForUser_computer_pathRelativeToVessaFolder_converter(
      const std::string& userName, const std::string& computerName, const std::string& pathRelativeToVessaFolder,
      QSVessaConversion* converter);
  // Whether the user folder holds at least one category folder with plan settings.
  static bool validUserBackupFolder(const platform::VolumeFolder& userFolder);
  // Whether `name` names a category folder of `userFolder` holding the plan
  // settings as a plain file; the settings go to `settings` (empty when
  // they cannot be read as a dictionary).
  static bool validCategoryBackupFolder_path_vessaBackupPlanSettings(const std::string& name,
                                                                     const platform::VolumeFolder& userFolder,
                                                                     platform::Dictionary* settings);

  void setVessConverter(QSVessaConversion* converter);
  // Makes sure the user has its identifier, then gives every version its new name.
  void performPathReassignment();
  // The new backup's identifier, made on first use.
  const std::string& assignedUUIDForQSBackup();
  // Moves the categories' files into `target` (the folder named by the
  // identifier) and writes the information list there.
  bool moveFilesToTargetFolderHierarchy(const VessaPlace& target);
  // Adds this user's backup under its identifier.
  void backupsConverted(QSVessaConvertedBackups* backups) const;

  // The information list as it stands (made once per user).
  const platform::Dictionary& generateBasicPlistDataForQSBackup();
  // Sets or removes "exclusion-filter-directory" in `plist` from
  // exclusionFilterDirectory and the list's "home".
  void fillPListDataWithExclusionFilterDirectory(platform::Dictionary* plist) const;

  platform::Dictionary archive() const;
  static std::shared_ptr<VessaUserBackup> initWithArchive(const platform::Value& archive);

  const std::string& computerName() const { return computerName_; }
  const std::string& userName() const { return userName_; }
  const std::string& relativePathToUserBackup() const { return relativePathToUserBackup_; }
  const std::vector<std::shared_ptr<VessaCategoryBackup>>& backedUpCategories() const { return categories_; }
  int32_t zeroBasedNumberOfBackupVersionsToKeep() const { return versionsToKeep_; }
  const std::optional<std::string>& exclusionFilterDirectory() const { return exclusionFilterDirectory_; }
  const std::optional<std::string>& uuidIfAssigned() const { return assignedUUID_; }
  const std::optional<platform::Dictionary>& plistDataForQSBackup() const { return plistData_; }

 private:
  void generateAssignedUUIDForQSBackup();
  void addCategoryDirectory_fullPathToUserBackup(const std::string& category, const platform::Dictionary& settings,
                                                 const platform::VolumeFolder& userFolder);
  platform::Array managedCategoriesWithDefaults() const;

  std::string computerName_;
  std::string userName_;
  std::string relativePathToUserBackup_;
  std::vector<std::shared_ptr<VessaCategoryBackup>> categories_;
  int32_t versionsToKeep_ = 0;
  std::optional<std::string> exclusionFilterDirectory_;
  std::optional<std::string> assignedUUID_;
  std::optional<platform::Dictionary> plistData_;
  QSVessaConversion* converter_ = nullptr;
};
