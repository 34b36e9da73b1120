// One category of a legacy user's backup ("Documents", "Mail", "Movies",
// "Music", "Other", "Pictures"): its plan settings and the tree of files
// kept below the user's home folder path inside the category folder.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Engine/conversion/VessaFileObject.h"

class VessaCategoryBackup {
 public:
  static constexpr const char* kClassName = "VessaCategoryBackup";

  // What moving a category's files reports to its user.
  struct MoveResult {
    bool moved = false;
    // The settings' "DeviceInfo.numberOfVersions" minus 1.
    int32_t zeroBasedNumberOfBackupVersionsToKeep = 0;
    // The first entry of the settings' "ExclusionFilters.directory" that is not the null marker.
    std::optional<std::string> exclusionFilterDirectory;
  };

  // A category whose files are read from `relativePathToCategoryBackup`
  // (user path / category / home path, relative to the current state
  // folder); a missing folder gives a category without files.
  static std::shared_ptr<VessaCategoryBackup> backedUpFilesForCategory_pathRelativeToVessaFolder_converter_vessaBackupPlanSettings(
      const std::string& category, const std::string& relativePathToCategoryBackup, QSVessaConversion* converter,
      const platform::Dictionary& vessaBackupPlanSettings);

  void setVessConverter(QSVessaConversion* converter);
  void performPathReassignment();
  // Moves every entry into the user's target folder.
  MoveResult moveFilesToTargetFolderHierarchy(const VessaPlace& target);

  // The settings' number of versions minus 1, and their first exclusion entry.
  int32_t zeroBasedNumberOfBackupVersionsToKeep() const;
  std::optional<std::string> exclusionFilterDirectory() const;

  platform::Dictionary archive() const;
  static std::shared_ptr<VessaCategoryBackup> initWithArchive(const platform::Value& archive);

  const std::string& category() const { return category_; }
  const std::string& relativePathToCategoryBackup() const { return relativePathToCategoryBackup_; }
  const VessaFileObjects& categoryFiles() const { return categoryFiles_; }
  const platform::Dictionary& vessaBackupPlanSettingsPropertyList() const { return settings_; }

 private:
  std::string relativePathToCategoryBackup_;
  std::string category_;
  VessaFileObjects categoryFiles_;
  platform::Dictionary settings_;
  QSVessaConversion* converter_ = nullptr;
};
