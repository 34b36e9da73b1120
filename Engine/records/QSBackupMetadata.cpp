#include "Engine/records/QSBackupMetadata.h"

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSUUID.h"
#include "platform/ExtendedAttributes.h"
#include "platform/PropertyList.h"
#include "platform/Uuid.h"

using platform::ExtendedAttributes;

bool CreateBackupAttributesMetadata(const std::string& path, const platform::Dictionary& attributes) {
  auto bytes = platform::PropertyList::toBytes(platform::Value(attributes), platform::PropertyList::Format::Binary);
  if (!bytes) return false;
  return ExtendedAttributes::set(path, kExtAttrKeyForBackupAttributesV1, platform::Bytes(bytes->begin(), bytes->end()),
                                 /*createOnly=*/true);
}

platform::Dictionary GetBakcupAttributesMetadata(const std::string& path) {
  auto size = ExtendedAttributes::size(path, kExtAttrKeyForBackupAttributesV1);
  if (!size || *size == 0) return {};
  auto bytes = ExtendedAttributes::get(path, kExtAttrKeyForBackupAttributesV1);
  if (!bytes || bytes->empty()) return {};
  auto value = platform::PropertyList::fromBytes(bytes->data(), bytes->size());
  if (!value || !value->isDictionary()) return {};
  return *value->asDictionary();
}

bool CreateUIDMetadata(const std::string& path, std::string* uid) {
  const QSUUIDBytes uuid = platform::generateTimeBasedUuid();
  if (!ExtendedAttributes::set(path, kExtAttrKeyForGUID, platform::Bytes(uuid.begin(), uuid.end()),
                               /*createOnly=*/true))
    return false;
  if (uid) *uid = stringWithUUID(uuid);
  return true;
}

std::optional<std::string> GetUIDMetadata(const std::string& path) {
  auto bytes = ExtendedAttributes::get(path, kExtAttrKeyForGUID);
  if (!bytes || bytes->size() != 16) return std::nullopt;
  QSUUIDBytes uuid;
  std::copy(bytes->begin(), bytes->end(), uuid.begin());
  return stringWithUUID(uuid);
}
