// One computer of a legacy backup folder and its users.  Only the computer
// named like this machine is converted; the others are examined (their
// names kept) but their folders are left as they are.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Engine/conversion/VessaUserBackup.h"

class VessaComputerBackup {
 public:
  static constexpr const char* kClassName = "VessaComputerBackup";

  // A computer for the folder `computerName` of the current state folder;
  // when it needs conversion, a user for each valid user folder in it.
  static std::shared_ptr<VessaComputerBackup> backedUpFilesForComputer_converter(const std::string& computerName,
                                                                                 QSVessaConversion* converter);

  void setVessConverter(QSVessaConversion* converter);
  void performPathReassignment();
  // For a computer that needs conversion: the target folder of each user
  // (`targetFolder`/identifier, relative to the volume root), made with the
  // legacy user folder's attributes and catalog information.
  bool constructTargetFolderHierarchy(const std::string& targetFolder);
  bool moveFilesToTargetFolderHierarchy(const std::string& targetFolder);
  // For a computer that needs conversion: its legacy folder in `stateFolder` goes to the trash.
  bool performComputerCleanup(const std::string& stateFolder);
  void backupsConverted(QSVessaConvertedBackups* backups) const;

  platform::Dictionary archive() const;
  static std::shared_ptr<VessaComputerBackup> initWithArchive(const platform::Value& archive);

  const std::string& computerName() const { return computerName_; }
  bool computerNeedsConversion() const { return computerNeedsConversion_; }
  const std::vector<std::shared_ptr<VessaUserBackup>>& backedUpUsers() const { return users_; }

 private:
  void addUserDirectory(const std::string& userName);

  std::string computerName_;
  bool computerNeedsConversion_ = false;
  std::vector<std::shared_ptr<VessaUserBackup>> users_;
  QSVessaConversion* converter_ = nullptr;
};
