#include "Engine/conversion/VessaCategoryBackup.h"

#include "Engine/conversion/QSVessaArchiving.h"
#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/conversion/QSVessaConversionStrings.h"

namespace {

// A value of the settings by key path ("DeviceInfo.numberOfVersions"), or
// by the whole text as one key.
const platform::Value* settingForKeyPath(const platform::Dictionary& settings, const std::string& keyPath) {
  if (const platform::Value* flat = settings.find(keyPath)) return flat;
  const platform::Dictionary* level = &settings;
  size_t start = 0;
  while (true) {
    const size_t dot = keyPath.find('.', start);
    const platform::Value* value = level->find(keyPath.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
    if (!value || dot == std::string::npos) return value;
    level = value->asDictionary();
    if (!level) return nullptr;
    start = dot + 1;
  }
}

}  // namespace

std::shared_ptr<VessaCategoryBackup>
VessaCategoryBackup::backedUpFilesForCategory_pathRelativeToVessaFolder_converter_vessaBackupPlanSettings(
    const std::string& category, const std::string& relativePathToCategoryBackup, QSVessaConversion* converter,
    const platform::Dictionary& vessaBackupPlanSettings) {
  auto backup = std::make_shared<VessaCategoryBackup>();
  backup->category_ = category;
  backup->relativePathToCategoryBackup_ = relativePathToCategoryBackup;
  backup->settings_ = vessaBackupPlanSettings;
  backup->converter_ = converter;
  const std::string stateFolder = converter->currentStateFolder();
  if (auto folder = converter->volume().openFolder(stateFolder + "/" + relativePathToCategoryBackup))
    backup->categoryFiles_ = CreateTreeOfVessaContentsAtPath(*folder, relativePathToCategoryBackup, converter);
  return backup;
}

void VessaCategoryBackup::setVessConverter(QSVessaConversion* converter) {
  converter_ = converter;
  for (const auto& [name, object] : categoryFiles_) object->setVessConverter(converter);
}

void VessaCategoryBackup::performPathReassignment() {
  for (const auto& [name, object] : categoryFiles_) object->performPathReassignmentWithOriginalName(name);
}

int32_t VessaCategoryBackup::zeroBasedNumberOfBackupVersionsToKeep() const {
  const platform::Value* versions = settingForKeyPath(settings_, kVessaPlanSettingsNumberOfVersions);
  const int64_t count = versions && versions->isNumber() ? versions->int64Value() : 0;
  const int64_t zeroBased = count - 1;
  return static_cast<int32_t>(std::max<int64_t>(INT32_MIN, std::min<int64_t>(INT32_MAX, zeroBased)));
}

std::optional<std::string> VessaCategoryBackup::exclusionFilterDirectory() const {
  const platform::Value* list = settingForKeyPath(settings_, kVessaPlanSettingsExclusionDirectories);
  const platform::Array* entries = list ? list->asArray() : nullptr;
  if (!entries) return std::nullopt;
  for (const platform::Value& entry : *entries) {
    if (vessa_archive::isNull(entry)) continue;
    if (const std::string* text = entry.asString()) return *text;
  }
  return std::nullopt;
}

VessaCategoryBackup::MoveResult VessaCategoryBackup::moveFilesToTargetFolderHierarchy(const VessaPlace& target) {
  MoveResult result;
  const std::string sourcePath = converter_->currentStateFolder() + "/" + relativePathToCategoryBackup_;
  auto source = converter_->volume().openFolder(sourcePath);
  result.moved = true;
  if (source) {
    const VessaPlace from{*source, sourcePath};
    for (const auto& [name, object] : categoryFiles_) {
      if (converter_->shouldStop() ||
          !object->moveFilesToTargetFolderHierarchy_objectKey_relativePathToSourceFolder(target, name, from)) {
        result.moved = false;
        break;
      }
    }
  }
  result.zeroBasedNumberOfBackupVersionsToKeep = zeroBasedNumberOfBackupVersionsToKeep();
  result.exclusionFilterDirectory = exclusionFilterDirectory();
  return result;
}

platform::Dictionary VessaCategoryBackup::archive() const {
  platform::Dictionary archive = vessa_archive::objectOfClass(kClassName);
  archive.set("category", platform::Value(category_));
  platform::Dictionary files;
  for (const auto& [name, object] : categoryFiles_) files.set(name, platform::Value(object->archive()));
  archive.set("categoryFiles", platform::Value(std::move(files)));
  archive.set("vessaBackupPlanSettingsPropertyList", platform::Value(settings_));
  archive.set("relativePathToCategoryBackup", platform::Value(relativePathToCategoryBackup_));
  return archive;
}

std::shared_ptr<VessaCategoryBackup> VessaCategoryBackup::initWithArchive(const platform::Value& value) {
  const platform::Dictionary* archive = vessa_archive::decodeObject(value, kClassName);
  if (!archive) return nullptr;
  auto backup = std::make_shared<VessaCategoryBackup>();
  if (!vessa_archive::decodeString(*archive, "category", &backup->category_) ||
      !vessa_archive::decodeString(*archive, "relativePathToCategoryBackup", &backup->relativePathToCategoryBackup_) ||
      !vessa_archive::isRelativePath(backup->relativePathToCategoryBackup_))
    return nullptr;
  const platform::Dictionary* settings = vessa_archive::decodeDictionary(*archive, "vessaBackupPlanSettingsPropertyList");
  const platform::Dictionary* files = vessa_archive::decodeDictionary(*archive, "categoryFiles");
  if (!settings || !files) return nullptr;
  backup->settings_ = *settings;
  for (const auto& [name, item] : *files) {
    if (!vessa_archive::isEntryName(name)) return nullptr;
    auto object = VessaFileObject::initWithArchive(item);
    if (!object) return nullptr;
    backup->categoryFiles_[name] = std::move(object);
  }
  return backup;
}
