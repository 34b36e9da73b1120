#include "Engine/conversion/VessaUserBackup.h"

#include <algorithm>

#include "Engine/conversion/QSVessaArchiving.h"
#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/conversion/QSVessaConversionStrings.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSUUID.h"
#include "Engine/support/QSCUtilities.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "platform/RegexPredicate.h"
#include "platform/VolumeFolder.h"

namespace {

constexpr size_t kMaxSettingsBytes = 4u * 1024u * 1024u;

bool isStandardUUID(const std::string& text) {
  QSUUIDBytes bytes;
  return parseToUUID(text, bytes) && stringWithUUID(bytes) == text;
}

std::string withoutLeadingSlashes(std::string path) {
  while (!path.empty() && path.front() == '/') path.erase(path.begin());
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::shared_ptr<VessaUserBackup> VessaUserBackup::backedUpCategoriesForUser_computer_pathRelativeToVessaFolder_converter(
    const std::string& userName, const std::string& computerName, const std::string& pathRelativeToVessaFolder,
    QSVessaConversion* converter) {
  auto user = std::make_shared<VessaUserBackup>();
  user->userName_ = userName;
  user->computerName_ = computerName;
  user->relativePathToUserBackup_ = pathRelativeToVessaFolder;
  user->converter_ = converter;
  const auto folder = converter->volume().openFolder(converter->currentStateFolder() + "/" + pathRelativeToVessaFolder);
  if (!folder) return user;
  for (const char* category : sCategoryFolderNames) {
    platform::Dictionary settings;
    if (validCategoryBackupFolder_path_vessaBackupPlanSettings(category, *folder, &settings))
      user->addCategoryDirectory_fullPathToUserBackup(category, settings, *folder);
  }
  return user;
}

bool VessaUserBackup::validUserBackupFolder(const platform::VolumeFolder& userFolder) {
  for (const char* category : sCategoryFolderNames) {
    platform::Dictionary settings;
    if (validCategoryBackupFolder_path_vessaBackupPlanSettings(category, userFolder, &settings)) return true;
  }
  return false;
}

bool VessaUserBackup::validCategoryBackupFolder_path_vessaBackupPlanSettings(const std::string& name,
                                                                             const platform::VolumeFolder& userFolder,
                                                                             platform::Dictionary* settings) {
  const auto category = userFolder.openChild(name);
  if (!category) return false;
  platform::FileAttributes attributes;
  if (!category->attributesOf(kVessaBackupPlanSettings, &attributes) || !attributes.isRegularFile()) return false;
  settings->clear();
  const auto bytes = category->readFile(kVessaBackupPlanSettings, kMaxSettingsBytes);
  const auto list = bytes ? platform::PropertyList::fromBytes(*bytes) : std::nullopt;
  if (list && list->isDictionary()) *settings = list->dictionary();
  return true;
}

void VessaUserBackup::addCategoryDirectory_fullPathToUserBackup(const std::string& category,
                                                                const platform::Dictionary& settings,
                                                                const platform::VolumeFolder& userFolder) {
  (void)userFolder;
  const std::string categoryPath = relativePathToUserBackup_ + "/" + category;
  const std::string stateFolder = converter_->currentStateFolder();
  // The files lie below the home folder's path; a backup made where homes
  // were "/Users/<name>" is found there too.
  std::string home = withoutLeadingSlashes(QSCHomeDirectoryForUser(userName_));
  const std::string macHome = withoutLeadingSlashes(std::string(kMacDefaultUsersFolder) + "/" + userName_);
  if (!vessa_archive::isRelativePath(home) ||
      (!converter_->volume().isFolderAt(stateFolder + "/" + categoryPath + "/" + home) &&
       converter_->volume().isFolderAt(stateFolder + "/" + categoryPath + "/" + macHome)))
    home = macHome;
  if (!vessa_archive::isRelativePath(home)) return;
  const std::string relative = home.empty() ? categoryPath : categoryPath + "/" + home;
  auto backup = VessaCategoryBackup::backedUpFilesForCategory_pathRelativeToVessaFolder_converter_vessaBackupPlanSettings(
      category, relative, converter_, settings);
  categories_.push_back(std::move(backup));
}

void VessaUserBackup::setVessConverter(QSVessaConversion* converter) {
  converter_ = converter;
  for (const auto& category : categories_) category->setVessConverter(converter);
}

void VessaUserBackup::performPathReassignment() {
  assignedUUIDForQSBackup();
  for (const auto& category : categories_) category->performPathReassignment();
}

const std::string& VessaUserBackup::assignedUUIDForQSBackup() {
  if (!assignedUUID_) generateAssignedUUIDForQSBackup();
  return *assignedUUID_;
}

void VessaUserBackup::generateAssignedUUIDForQSBackup() {
  assignedUUID_ = stringByGeneratingUUID();
  generateBasicPlistDataForQSBackup();
  QSMutableBackupAttributes(*plistData_).setUID(*assignedUUID_);
}

platform::Array VessaUserBackup::managedCategoriesWithDefaults() const {
  platform::Array managed;
  if (categories_.empty()) return managed;
  for (const char* identifier : kAllCategories) {
    const bool kept = std::any_of(categories_.begin(), categories_.end(),
                                  [&](const auto& category) { return category->category() == identifier; });
    platform::Dictionary archive;
    archive.set(kQSBackupPlistKey_ManagedCategories_Identifier, platform::Value(identifier));
    archive.set(kQSBackupPlistKey_ManagedCategories_UserInfo, platform::Value(platform::Dictionary()));
    archive.set(kQSBackupPlistKey_ManagedCategories_Scheduled, platform::Value::boolean(kept));
    managed.push_back(platform::Value(std::move(archive)));
  }
  return managed;
}

const platform::Dictionary& VessaUserBackup::generateBasicPlistDataForQSBackup() {
  if (plistData_) return *plistData_;
  plistData_ = platform::Dictionary();
  QSMutableBackupAttributes list(*plistData_);
  if (assignedUUID_) list.setUID(*assignedUUID_);
  list.setSourceFormatHFSPlus();
  list.setUserHome(QSCHomeDirectoryForUser(userName_));
  list.setLongUserName(QSCFullUserNameForUser(userName_));
  list.setMachineName(computerName_);
  list.setCompletionDate(platform::Date::now());
  list.setPeriod(QSBackupEntry::defaultPeriod());
  list.setScheduled(true);
  list.setShortUserName(userName_);
  list.setVersionDepth(static_cast<uint32_t>(std::max<int32_t>(0, versionsToKeep_)));
  fillPListDataWithExclusionFilterDirectory(&*plistData_);
  const platform::Array managed = managedCategoriesWithDefaults();
  if (!managed.empty()) list.setManagedCategories(managed);
  return *plistData_;
}

void VessaUserBackup::fillPListDataWithExclusionFilterDirectory(platform::Dictionary* plist) const {
  const platform::Value* homeValue = plist->find(kQSBackupPlistKey_Home);
  const std::string* home = homeValue ? homeValue->asString() : nullptr;
  if (exclusionFilterDirectory_ && home && !home->empty() && exclusionFilterDirectory_->rfind(*home, 0) == 0) {
    const std::string expression = exclusionFilterDirectory_->substr(home->size()) + "(.*)";
    std::string why;
    if (platform::RegexPredicate::isValidExpression(expression, &why)) {
      plist->set(kQSBackupPlistKey_ExclusionFilterDirectory, platform::Value(expression));
      return;
    }
    platform::Log::format("The legacy exclusion %s of %s is not a usable expression (%s); it is left out",
                          expression.c_str(), userName_.c_str(), why.c_str());
  }
  plist->remove(kQSBackupPlistKey_ExclusionFilterDirectory);
}

bool VessaUserBackup::moveFilesToTargetFolderHierarchy(const VessaPlace& target) {
  versionsToKeep_ = 0;
  bool moved = true;
  for (const auto& category : categories_) {
    const VessaCategoryBackup::MoveResult result = category->moveFilesToTargetFolderHierarchy(target);
    versionsToKeep_ = std::max(versionsToKeep_, result.zeroBasedNumberOfBackupVersionsToKeep);
    if (result.exclusionFilterDirectory) exclusionFilterDirectory_ = result.exclusionFilterDirectory;
    if (!result.moved) {
      moved = false;
      break;
    }
  }
  platform::Dictionary list = generateBasicPlistDataForQSBackup();
  QSMutableBackupAttributes(list).setVersionDepth(static_cast<uint32_t>(std::max<int32_t>(0, versionsToKeep_)));
  fillPListDataWithExclusionFilterDirectory(&list);
  plistData_ = list;
  const auto bytes = platform::PropertyList::toBytes(platform::Value(list), platform::PropertyList::Format::XML);
  if (converter_->shouldStopBeforeWriting()) return false;
  // Temporary files of a write that a crash interrupted go first.
  if (const auto names = target.folder.entries())
    for (const std::string& name : *names)
      if (platform::VolumeFolder::isTemporaryNameOf(name, kMetadataFileName)) target.folder.removeEntry(name);
  const bool written = bytes && target.folder.writeFileAtomically(kMetadataFileName, *bytes, 0644);
  if (!written) platform::Log::format("Unable to write the information list of %s", target.relativePath.c_str());
  // A failed move keeps the conversion at movement, so the next run moves what is left.
  return moved && written;
}

void VessaUserBackup::backupsConverted(QSVessaConvertedBackups* backups) const {
  if (!assignedUUID_) return;
  QSVessaConvertedBackup backup;
  if (!categories_.empty()) {
    backup.categories = std::vector<std::string>();
    for (const auto& category : categories_) backup.categories->push_back(category->category());
  }
  backup.zeroBasedNumberOfBackupVersionsToKeep = versionsToKeep_;
  (*backups)[*assignedUUID_] = backup;
}

platform::Dictionary VessaUserBackup::archive() const {
  platform::Dictionary archive = vessa_archive::objectOfClass(kClassName);
  archive.set("computerName", platform::Value(computerName_));
  archive.set("userName", platform::Value(userName_));
  archive.set("relativePathToUserBackup", platform::Value(relativePathToUserBackup_));
  platform::Array categories;
  for (const auto& category : categories_) categories.push_back(platform::Value(category->archive()));
  archive.set("backedUpCategories", platform::Value(std::move(categories)));
  archive.set("zeroBasedNumberOfBackupVersionsToKeep", platform::Value::integer(versionsToKeep_));
  archive.set("exclusionFilterDirectory", vessa_archive::stringOrNull(exclusionFilterDirectory_));
  archive.set("assignedUUIDForQSBackup", vessa_archive::stringOrNull(assignedUUID_));
  archive.set("plistDataForQSBackup", plistData_ ? platform::Value(*plistData_) : vessa_archive::null());
  return archive;
}

std::shared_ptr<VessaUserBackup> VessaUserBackup::initWithArchive(const platform::Value& value) {
  const platform::Dictionary* archive = vessa_archive::decodeObject(value, kClassName);
  if (!archive) return nullptr;
  auto user = std::make_shared<VessaUserBackup>();
  if (!vessa_archive::decodeString(*archive, "computerName", &user->computerName_) ||
      !vessa_archive::decodeString(*archive, "userName", &user->userName_) ||
      !vessa_archive::decodeString(*archive, "relativePathToUserBackup", &user->relativePathToUserBackup_) ||
      !vessa_archive::isRelativePath(user->relativePathToUserBackup_) ||
      !vessa_archive::decodeInt32(*archive, "zeroBasedNumberOfBackupVersionsToKeep", &user->versionsToKeep_) ||
      !vessa_archive::decodeStringOrNull(*archive, "exclusionFilterDirectory", &user->exclusionFilterDirectory_) ||
      !vessa_archive::decodeStringOrNull(*archive, "assignedUUIDForQSBackup", &user->assignedUUID_))
    return nullptr;
  if (user->assignedUUID_ && !isStandardUUID(*user->assignedUUID_)) return nullptr;
  const platform::Value* plist = archive->find("plistDataForQSBackup");
  if (!plist) return nullptr;
  if (!vessa_archive::isNull(*plist)) {
    if (!plist->isDictionary()) return nullptr;
    user->plistData_ = plist->dictionary();
  }
  const platform::Array* categories = vessa_archive::decodeArray(*archive, "backedUpCategories");
  if (!categories) return nullptr;
  for (const platform::Value& item : *categories) {
    auto category = VessaCategoryBackup::initWithArchive(item);
    if (!category) return nullptr;
    user->categories_.push_back(std::move(category));
  }
  return user;
}
