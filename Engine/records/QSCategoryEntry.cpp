#include "Engine/records/QSCategoryEntry.h"

#include "Engine/records/QSBackupAttributes.h"
#include "platform/Format.h"

namespace {
const std::shared_ptr<const platform::Dictionary>& emptyUserInfo() {
  static const auto empty = std::make_shared<const platform::Dictionary>();
  return empty;
}
}  // namespace

QSCategoryEntry::QSCategoryEntry(Passkey, std::string identifier)
    : userInfo_(std::make_shared<const platform::Dictionary>()), identifier_(std::move(identifier)) {}

std::shared_ptr<QSCategoryEntry> QSCategoryEntry::initWithIdentifier(const std::string& identifier) {
  return std::make_shared<QSCategoryEntry>(Passkey(), identifier);
}

std::shared_ptr<QSCategoryEntry> QSCategoryEntry::initWithArchive(const platform::Dictionary& archive) {
  const QSBackupAttributes attributes(archive);
  auto entry =
      std::make_shared<QSCategoryEntry>(Passkey(), attributes.stringForKey(kQSBackupPlistKey_ManagedCategories_Identifier)
                                                       .value_or(std::string()));
  entry->isScheduled_ = attributes.booleanForKey(kQSBackupPlistKey_ManagedCategories_Scheduled);
  const platform::Value* info = archive.find(kQSBackupPlistKey_ManagedCategories_UserInfo);
  if (info && info->isDictionary()) entry->userInfo_ = std::make_shared<const platform::Dictionary>(*info->asDictionary());
  return entry;
}

std::shared_ptr<QSCategoryEntry> QSCategoryEntry::initWithCoder(QSDecoder& coder) {
  const bool scheduled = coder.decodeBool();
  std::string identifier = coder.decodeString();
  auto entry = std::make_shared<QSCategoryEntry>(Passkey(), std::move(identifier));
  entry->isScheduled_ = scheduled;
  entry->userInfo_ = std::make_shared<const platform::Dictionary>(coder.decodeDictionary());
  return entry;
}

platform::Dictionary QSCategoryEntry::archive() const {
  platform::Dictionary out;
  out.set(kQSBackupPlistKey_ManagedCategories_Identifier, identifier_);
  out.set(kQSBackupPlistKey_ManagedCategories_UserInfo, userInfo_ ? *userInfo_ : platform::Dictionary());
  out.set(kQSBackupPlistKey_ManagedCategories_Scheduled, platform::Value::boolean(isScheduled_));
  return out;
}

void QSCategoryEntry::encodeWithCoder(QSEncoder& coder) const {
  coder.encodeBool(isScheduled_);
  coder.encodeString(identifier_);
  coder.encodeDictionary(userInfo_ ? *userInfo_ : platform::Dictionary());
}

QSPortReplacement QSCategoryEntry::replacementObjectForPortCoder(const QSEncoder& coder) {
  return coder.isByref() ? QSPortReplacement::ByReference : QSPortReplacement::ByCopy;
}

std::shared_ptr<QSCategoryEntry> QSCategoryEntry::mutableCopy() const {
  auto copy = std::make_shared<QSCategoryEntry>(Passkey(), identifier_);
  copy->userInfo_ = userInfo_;
  copy->isScheduled_ = isScheduled_;
  return copy;
}

void QSCategoryEntry::setScheduled(bool scheduled) {
  willChangeValueForKey(kScheduledKey);
  isScheduled_ = scheduled;
  didChangeValueForKey(kScheduledKey);
}

void QSCategoryEntry::setUserInfo(std::shared_ptr<const platform::Dictionary> userInfo) {
  if (userInfo == userInfo_) return;
  userInfo_ = userInfo ? std::move(userInfo) : emptyUserInfo();
}

std::string QSCategoryEntry::description() const {
  const std::string info = (!userInfo_ || userInfo_->empty()) ? "(empty)" : userInfo_->description();
  return platform::format("\n   isScheduled: %s\n      userInfo: %s\n", platform::yesNo(isScheduled_), info.c_str());
}

std::any QSCategoryEntry::valueForKey(const std::string& key) const {
  if (key == kScheduledKey) return isScheduled_;
  if (key == "identifier") return identifier_;
  if (key == "userInfo") return userInfo_;
  return {};
}
