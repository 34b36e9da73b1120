#include "Engine/conversion/VessaFileObject.h"

#include <algorithm>

#include "Engine/conversion/QSVessaArchiving.h"
#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/conversion/QSVessaConversionStrings.h"
#include "Engine/conversion/VessaFile.h"
#include "Engine/conversion/VessaFolder.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "platform/VolumeFolder.h"

namespace {

// Per-file property lists are small; a larger one is not the older product's.
constexpr size_t kMaxPropertyListBytes = 16u * 1024u * 1024u;
// Deeper folders than this are not read (a hostile disk could nest without end).
constexpr unsigned kMaxDepth = 256;

// The file entry `name` of `objects`, made when missing; nullptr when a folder holds the name.
VessaFile* fileNamed(VessaFileObjects& objects, const std::string& name, const std::string& relativePath,
                     QSVessaConversion* converter) {
  auto& slot = objects[name];
  if (!slot) {
    auto file = std::make_shared<VessaFile>(relativePath);
    file->setVessConverter(converter);
    slot = file;
  }
  return slot->isFile() ? static_cast<VessaFile*>(slot.get()) : nullptr;
}

VessaFileObjects treeAt(platform::VolumeFolder& folder, const std::string& relativePath,
                        QSVessaConversion* converter, unsigned depth) {
  using Type = platform::VolumeFolder::Entry::Type;
  VessaFileObjects objects;
  auto entries = folder.entriesWithTypes();
  if (!entries) {
    platform::Log::format("Unable to read the legacy folder %s", relativePath.c_str());
    return objects;
  }
  // Listing order differs between file systems; the model does not.
  std::sort(entries->begin(), entries->end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  for (const auto& entry : *entries) {
    const std::string& name = entry.name;
    const Type type = folder.typeOf(entry);
    const std::string path = relativePath.empty() ? name : relativePath + "/" + name;
    if (type == Type::Directory) {
      if (depth >= kMaxDepth || converter->shouldStop()) continue;
      auto child = folder.openChild(name);
      if (!child) continue;
      auto& slot = objects[name];
      if (slot) {
        platform::Log::format("The legacy folder %s has the name of a file beside it; it is left as it is",
                              path.c_str());
        continue;
      }
      auto entry = std::make_shared<VessaFolder>(treeAt(*child, path, converter, depth + 1));
      entry->setVessConverter(converter);
      slot = entry;
      continue;
    }
    if (type != Type::Regular && type != Type::SymbolicLink) continue;
    std::string plainName;
    if (IsFileAVessaPList(name, &plainName)) {
      if (plainName.empty() || !platform::VolumeFolder::isEntryName(plainName)) continue;
      VessaFile* file = fileNamed(objects, plainName, relativePath, converter);
      if (!file) continue;
      const auto bytes = folder.readFile(name, kMaxPropertyListBytes);
      const auto list = bytes ? platform::PropertyList::fromBytes(*bytes) : std::nullopt;
      if (list && list->isArray()) file->setVessaPropertyList(list->array());
      continue;
    }
    if (IsVessaConversionLeftover(name)) continue;
    std::optional<platform::Date> stamp;
    plainName = SeparateVessaVersionInfoFromFileName(name, converter->vessaTimeStampFormatter(), &stamp);
    if (!platform::VolumeFolder::isEntryName(plainName)) continue;
    if (IsFileBlackListedByQSBackupButWasNotByVessaBackup(plainName)) continue;
    VessaFile* file = fileNamed(objects, plainName, relativePath, converter);
    if (!file) {
      platform::Log::format("The legacy file %s has the name of a folder beside it; it is left as it is", path.c_str());
      continue;
    }
    file->addVersion(name, stamp);
  }
  return objects;
}

}  // namespace

std::shared_ptr<VessaFileObject> VessaFileObject::initWithArchive(const platform::Value& archive) {
  if (const platform::Dictionary* file = vessa_archive::decodeObject(archive, VessaFile::kClassName))
    return VessaFile::initWithArchive(*file);
  if (const platform::Dictionary* folder = vessa_archive::decodeObject(archive, VessaFolder::kClassName))
    return VessaFolder::initWithArchive(*folder);
  return nullptr;
}

VessaFileObjects CreateTreeOfVessaContentsAtPath(platform::VolumeFolder& folder, const std::string& relativePath,
                                                 QSVessaConversion* converter) {
  return treeAt(folder, relativePath, converter, 0);
}
