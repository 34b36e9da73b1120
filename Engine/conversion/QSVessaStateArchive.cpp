#include "Engine/conversion/QSVessaStateArchive.h"

#include "platform/PropertyList.h"

std::optional<std::string> QSVessaStateArchive::archivedDataWithRootObject(const Computers& computers) {
  platform::Array root;
  root.reserve(computers.size());
  for (const auto& computer : computers) root.push_back(platform::Value(computer->archive()));
  platform::Dictionary archive;
  archive.set(kArchiverKey, platform::Value(kArchiverName));
  archive.set(kVersionKey, platform::Value::integer(kVersion));
  archive.set(kRootKey, platform::Value(std::move(root)));
  // XML: libplist's binary writer takes time that grows faster than the
  // model (seconds for a few thousand files), its XML writer does not.
  return platform::PropertyList::toBytes(platform::Value(std::move(archive)), platform::PropertyList::Format::XML);
}

std::optional<QSVessaStateArchive::Computers> QSVessaStateArchive::unarchiveObjectWithData(const std::string& bytes) {
  const auto value = platform::PropertyList::fromBytes(bytes);
  const platform::Dictionary* archive = value ? value->asDictionary() : nullptr;
  if (!archive) return std::nullopt;
  const platform::Value* archiver = archive->find(kArchiverKey);
  const platform::Value* version = archive->find(kVersionKey);
  const platform::Value* root = archive->find(kRootKey);
  if (!archiver || !archiver->asString() || *archiver->asString() != kArchiverName) return std::nullopt;
  if (!version || !version->isNumber() || version->int64Value() != kVersion) return std::nullopt;
  if (!root || !root->isArray()) return std::nullopt;
  Computers computers;
  for (const platform::Value& item : *root->asArray()) {
    auto computer = VessaComputerBackup::initWithArchive(item);
    if (!computer) return std::nullopt;
    computers.push_back(std::move(computer));
  }
  return computers;
}
