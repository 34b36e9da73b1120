#include "Engine/conversion/VessaComputerBackup.h"

#include <algorithm>

#include "Engine/conversion/QSVessaArchiving.h"
#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/support/QSCUtilities.h"
#include "platform/Log.h"

std::shared_ptr<VessaComputerBackup> VessaComputerBackup::backedUpFilesForComputer_converter(
    const std::string& computerName, QSVessaConversion* converter) {
  auto computer = std::make_shared<VessaComputerBackup>();
  computer->computerName_ = computerName;
  computer->converter_ = converter;
  computer->computerNeedsConversion_ = computerName == converter->environment().computerName;
  if (!computer->computerNeedsConversion_) {
    platform::Log::format("The legacy backups of the computer \"%s\" are left as they are (this computer is \"%s\")",
                          computerName.c_str(), converter->environment().computerName.c_str());
    return computer;
  }
  const auto folder = converter->volume().openFolder(converter->currentStateFolder() + "/" + computerName);
  if (!folder) return computer;
  auto names = folder->entries();
  if (!names) return computer;
  std::sort(names->begin(), names->end());
  for (const std::string& name : *names) {
    const auto userFolder = folder->openChild(name);
    if (userFolder && VessaUserBackup::validUserBackupFolder(*userFolder)) computer->addUserDirectory(name);
  }
  return computer;
}

void VessaComputerBackup::addUserDirectory(const std::string& userName) {
  users_.push_back(VessaUserBackup::backedUpCategoriesForUser_computer_pathRelativeToVessaFolder_converter(
      userName, computerName_, computerName_ + "/" + userName, converter_));
}

void VessaComputerBackup::setVessConverter(QSVessaConversion* converter) {
  converter_ = converter;
  for (const auto& user : users_) user->setVessConverter(converter);
}

void VessaComputerBackup::performPathReassignment() {
  for (const auto& user : users_) user->performPathReassignment();
}

bool VessaComputerBackup::constructTargetFolderHierarchy(const std::string& targetFolder) {
  if (!computerNeedsConversion_) return true;
  platform::VolumeTree& volume = converter_->volume();
  for (const auto& user : users_) {
    if (converter_->shouldStopBeforeWriting()) return false;
    const std::string legacy = converter_->currentStateFolder() + "/" + user->relativePathToUserBackup();
    platform::FileAttributes attributes;
    if (!volume.attributesAt(legacy, &attributes) || !attributes.isDirectory()) {
      platform::Log::format("The legacy user folder %s is gone", legacy.c_str());
      return false;
    }
    platform::Dictionary folderAttributes;
    folderAttributes.set("NSFilePosixPermissions", platform::Value::unsignedInteger(attributes.mode & 07777));
    folderAttributes.set("NSFileOwnerAccountID", platform::Value::unsignedInteger(attributes.uid));
    folderAttributes.set("NSFileGroupOwnerAccountID", platform::Value::unsignedInteger(attributes.gid));
    FSCatalogInfo catalog;
    const bool haveCatalog =
        QSCGetCatalogInfo(volume.rootPath() + "/" + legacy, false, kFSCatInfoSettableInfo, &catalog) == noErr;
    const std::string target = volume.rootPath() + "/" + targetFolder + "/" + user->assignedUUIDForQSBackup();
    if (!QSCCreateDirectoryIfNeededAndDeleteFileIfNamePresent(target, &folderAttributes,
                                                              haveCatalog ? &catalog : nullptr)) {
      platform::Log::format("Unable to make the backup folder %s", target.c_str());
      return false;
    }
  }
  return true;
}

bool VessaComputerBackup::moveFilesToTargetFolderHierarchy(const std::string& targetFolder) {
  if (!computerNeedsConversion_) return true;
  for (const auto& user : users_) {
    if (converter_->shouldStop()) return false;
    const std::string target = targetFolder + "/" + user->assignedUUIDForQSBackup();
    auto folder = converter_->volume().openFolder(target);
    if (!folder) {
      platform::Log::format("Unable to open the backup folder %s", target.c_str());
      return false;
    }
    if (!user->moveFilesToTargetFolderHierarchy(VessaPlace{*folder, target})) return false;
  }
  return true;
}

bool VessaComputerBackup::performComputerCleanup(const std::string& stateFolder) {
  if (!computerNeedsConversion_) return true;
  return converter_->trashLegacyFolder(stateFolder + "/" + computerName_);
}

void VessaComputerBackup::backupsConverted(QSVessaConvertedBackups* backups) const {
  if (!computerNeedsConversion_) return;
  for (const auto& user : users_) user->backupsConverted(backups);
}

platform::Dictionary VessaComputerBackup::archive() const {
  platform::Dictionary archive = vessa_archive::objectOfClass(kClassName);
  archive.set("computerName", platform::Value(computerName_));
  platform::Array users;
  for (const auto& user : users_) users.push_back(platform::Value(user->archive()));
  archive.set("backedUpUsers", platform::Value(std::move(users)));
  archive.set("computerNeedsConversion", platform::Value::boolean(computerNeedsConversion_));
  return archive;
}

std::shared_ptr<VessaComputerBackup> VessaComputerBackup::initWithArchive(const platform::Value& value) {
  const platform::Dictionary* archive = vessa_archive::decodeObject(value, kClassName);
  if (!archive) return nullptr;
  auto computer = std::make_shared<VessaComputerBackup>();
  if (!vessa_archive::decodeString(*archive, "computerName", &computer->computerName_) ||
      !vessa_archive::isEntryName(computer->computerName_) ||
      !vessa_archive::decodeBoolean(*archive, "computerNeedsConversion", &computer->computerNeedsConversion_))
    return nullptr;
  const platform::Array* users = vessa_archive::decodeArray(*archive, "backedUpUsers");
  if (!users) return nullptr;
  for (const platform::Value& item : *users) {
    auto user = VessaUserBackup::initWithArchive(item);
    if (!user) return nullptr;
    computer->users_.push_back(std::move(user));
  }
  return computer;
}
