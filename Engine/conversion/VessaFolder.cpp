#include "Engine/conversion/VessaFolder.h"

#include "Engine/conversion/QSVessaArchiving.h"
#include "Engine/conversion/QSVessaConversion.h"
#include "platform/Log.h"
#include "platform/VolumeFolder.h"

void VessaFolder::setVessConverter(QSVessaConversion* converter) {
  VessaFileObject::setVessConverter(converter);
  for (const auto& [name, object] : fileObjects_) object->setVessConverter(converter);
}

void VessaFolder::performPathReassignmentWithOriginalName(const std::string& name) {
  (void)name;
  for (const auto& [entryName, object] : fileObjects_) object->performPathReassignmentWithOriginalName(entryName);
}

bool VessaFolder::moveFilesToTargetFolderHierarchy_objectKey_relativePathToSourceFolder(const VessaPlace& target,
                                                                                        const std::string& objectKey,
                                                                                        const VessaPlace& source) {
  const auto sourceFolder = source.folder.openChild(objectKey);
  // Gone (or never a real folder): nothing of it is left to move.
  if (!sourceFolder) return true;
  platform::FileAttributes attributes;
  if (!sourceFolder->attributes(&attributes)) return false;
  if (converter_->shouldStopBeforeWriting()) return false;
  const std::string targetPath = target.relativePath + "/" + objectKey;
  if (!target.folder.makeChild(objectKey, attributes.mode & 07777, attributes.uid, attributes.gid)) {
    platform::Log::format("Unable to make the folder %s", targetPath.c_str());
    return false;
  }
  const auto targetFolder = target.folder.openChild(objectKey);
  if (!targetFolder) {
    platform::Log::format("Unable to open the folder %s", targetPath.c_str());
    return false;
  }
  const VessaPlace into{*targetFolder, targetPath};
  const VessaPlace from{*sourceFolder, source.relativePath + "/" + objectKey};
  for (const auto& [name, object] : fileObjects_) {
    if (converter_->shouldStop()) return false;
    if (!object->moveFilesToTargetFolderHierarchy_objectKey_relativePathToSourceFolder(into, name, from)) return false;
  }
  target.folder.setModificationTime(objectKey, attributes.modificationTime);
  return true;
}

platform::Dictionary VessaFolder::archive() const {
  platform::Dictionary archive = vessa_archive::objectOfClass(kClassName);
  platform::Dictionary objects;
  for (const auto& [name, object] : fileObjects_) objects.set(name, platform::Value(object->archive()));
  archive.set("fileObjects", platform::Value(std::move(objects)));
  return archive;
}

std::shared_ptr<VessaFolder> VessaFolder::initWithArchive(const platform::Dictionary& archive) {
  const platform::Dictionary* objects = vessa_archive::decodeDictionary(archive, "fileObjects");
  if (!objects) return nullptr;
  VessaFileObjects fileObjects;
  for (const auto& [name, value] : *objects) {
    if (!vessa_archive::isEntryName(name)) return nullptr;
    auto object = VessaFileObject::initWithArchive(value);
    if (!object) return nullptr;
    fileObjects[name] = std::move(object);
  }
  return std::make_shared<VessaFolder>(std::move(fileObjects));
}
