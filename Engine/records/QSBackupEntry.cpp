#include "Engine/records/QSBackupEntry.h"

#include <algorithm>

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"

using platform::Dictionary;
using platform::Value;

QSBackupEntry::QSBackupEntry(Passkey, std::string uid) : uid_(std::move(uid)) {}

QSBackupEntry::~QSBackupEntry() { removeAllCategories(); }

std::shared_ptr<QSBackupEntry> QSBackupEntry::initWithUID(const std::string& uid) {
  auto entry = std::make_shared<QSBackupEntry>(Passkey(), uid);
  for (const char* identifier : kAllCategories) entry->addCategoryWithIdentifier(identifier);
  return entry;
}

void QSBackupEntry::readCommonFields(const Dictionary& dictionary) {
  const QSBackupAttributes attributes(dictionary);
  machineName_ = attributes.machineName().value_or(std::string());
  shortUserName_ = attributes.shortUserName().value_or(std::string());
  longUserName_ = attributes.longUserName().value_or(std::string());
  userHome_ = attributes.userHome().value_or(std::string());
  sourceFormat_ = kQSBackupPlistKey_SourceFormat_HFSPlus;
  versionDepth_ = attributes.versionDepth();
  if (auto expression = attributes.exclusionFilterDirectory()) setExclusionExpression(*expression);
}

void QSBackupEntry::readCategories(const Dictionary& dictionary) {
  const auto categories = QSBackupAttributes(dictionary).managedCategories();
  if (!categories) return;
  for (const Value& item : *categories) {
    // Elements that are not category archives carry nothing to keep.
    if (!item.isDictionary()) continue;
    const Dictionary& archive = *item.asDictionary();
    const Value* identifier = archive.find(kQSBackupPlistKey_ManagedCategories_Identifier);
    if (!identifier || !identifier->isString()) continue;
    auto category = QSCategoryEntry::initWithArchive(archive);
    removeCategoryWithIdentifier(category->identifier());
    storeAndObserve(category->identifier(), category);
  }
}

std::shared_ptr<QSBackupEntry> QSBackupEntry::initWithArchive(const Dictionary& archive) {
  const QSBackupAttributes attributes(archive);
  auto entry = initWithUID(attributes.uid().value_or(std::string()));
  entry->isPersistent_ = true;
  entry->isScheduled_ = attributes.isScheduled();
  entry->completionDate_ = attributes.completionDate().value_or(platform::Date::distantPast());
  entry->readCommonFields(archive);
  entry->period_ = attributes.period();
  entry->readCategories(archive);
  return entry;
}

std::shared_ptr<QSBackupEntry> QSBackupEntry::initWithBackupDirMetadata(const Dictionary& metadata) {
  const QSBackupAttributes attributes(metadata);
  auto entry = initWithUID(attributes.uid().value_or(std::string()));
  entry->isScheduled_ = false;
  entry->isPersistent_ = false;
  entry->completionDate_ = platform::Date::distantPast();
  entry->period_ = defaultPeriod();
  entry->readCommonFields(metadata);
  entry->readCategories(metadata);
  return entry;
}

std::shared_ptr<QSBackupEntry> QSBackupEntry::initWithCoder(QSDecoder& coder) {
  const bool scheduled = coder.decodeBool();
  const bool persistent = coder.decodeBool();
  std::string uid = coder.decodeString();
  auto entry = std::make_shared<QSBackupEntry>(Passkey(), std::move(uid));
  entry->isScheduled_ = scheduled;
  entry->isPersistent_ = persistent;
  entry->machineName_ = coder.decodeString();
  entry->sourceFormat_ = coder.decodeString();
  entry->shortUserName_ = coder.decodeString();
  entry->longUserName_ = coder.decodeString();
  entry->userHome_ = coder.decodeString();
  entry->mountPoint_ = coder.decodeString();
  entry->BSDName_ = coder.decodeString();
  entry->volumeName_ = coder.decodeString();
  CategoryMap categories;
  const size_t count = coder.beginDictionary();
  for (size_t i = 0; i < count; ++i) {
    std::string key = coder.decodeString();
    categories[key] = coder.decodeObject<QSCategoryEntry>(QSCategoryEntry::kClassName);
  }
  coder.endDictionary();
  entry->setManagedCategories(categories);
  entry->completionDate_ = coder.decodeDate();
  entry->period_ = coder.decodeDouble();
  entry->versionDepth_ = coder.decodeUInt32();
  entry->setExclusionExpression(coder.decodeOptionalString());
  return entry;
}

// The fields that both the database archive and the on-disk metadata begin with.
void QSBackupEntry::writeOwnerFields(QSMutableBackupAttributes& attributes) const {
  attributes.setUID(uid_);
  attributes.setUserHome(userHome_);
  attributes.setShortUserName(shortUserName_);
  attributes.setLongUserName(longUserName_);
  attributes.setMachineName(machineName_);
  attributes.setSourceFormatHFSPlus();
}

Dictionary QSBackupEntry::archive() const {
  Dictionary out;
  QSMutableBackupAttributes attributes(out);
  writeOwnerFields(attributes);
  attributes.setScheduled(isScheduled_);
  attributes.setManagedCategories(categoriesArchive());
  attributes.setCompletionDate(completionDate_);
  attributes.setPeriod(period_);
  attributes.setVersionDepth(versionDepth_);
  if (exclusionExpression_) attributes.setExclusionFilterDirectory(*exclusionExpression_);
  return out;
}

Dictionary QSBackupEntry::metadataForBackupDir() const {
  Dictionary out;
  QSMutableBackupAttributes attributes(out);
  writeOwnerFields(attributes);
  attributes.setManagedCategories(categoriesArchive());
  attributes.setVersionDepth(versionDepth_);
  if (exclusionExpression_) attributes.setExclusionFilterDirectory(*exclusionExpression_);
  return out;
}

platform::Array QSBackupEntry::categoriesArchive() const {
  platform::Array out;
  out.reserve(managedCategories_.size());
  for (const auto& [identifier, category] : managedCategories_) out.emplace_back(category->archive());
  return out;
}

void QSBackupEntry::encodeWithCoder(QSEncoder& coder) const {
  coder.encodeBool(isScheduled_);
  coder.encodeBool(isPersistent_);
  coder.encodeString(uid_);
  coder.encodeString(machineName_);
  coder.encodeString(sourceFormat_);
  coder.encodeString(shortUserName_);
  coder.encodeString(longUserName_);
  coder.encodeString(userHome_);
  coder.encodeString(mountPoint_);
  coder.encodeString(BSDName_);
  coder.encodeString(volumeName_);
  coder.beginDictionary(managedCategories_.size());
  for (const auto& [identifier, category] : managedCategories_) {
    coder.encodeString(identifier);
    coder.encodeObject(QSCategoryEntry::kClassName, *category);
  }
  coder.endDictionary();
  coder.encodeDate(completionDate_);
  coder.encodeDouble(period_);
  coder.encodeUInt32(versionDepth_);
  coder.encodeOptionalString(exclusionExpression_);
}

QSPortReplacement QSBackupEntry::replacementObjectForPortCoder(const QSEncoder& coder) {
  return coder.isByref() ? QSPortReplacement::ByReference : QSPortReplacement::ByCopy;
}

std::shared_ptr<QSBackupEntry> QSBackupEntry::mutableCopy() const {
  auto copy = initWithUID(uid_);
  copy->setScheduled(isScheduled_);
  copy->setPersistent(isPersistent_);
  copy->setMachineName(machineName_);
  copy->setSourceFormatHFSPlus();
  copy->setUserHome(userHome_);
  copy->setShortUserName(shortUserName_);
  copy->setLongUserName(longUserName_);
  copy->setManagedCategories(managedCategories_);
  copy->setMountPoint(mountPoint_);
  copy->setBSDName(BSDName_);
  copy->setExclusionExpression(exclusionExpression_);
  return copy;
}

std::string QSBackupEntry::backupDirectoryPath() const { return mountPoint_ + kBackupDestinationDirectoryName; }

void QSBackupEntry::setSourceFormatHFSPlus() { sourceFormat_ = kQSBackupPlistKey_SourceFormat_HFSPlus; }

void QSBackupEntry::post(const char* name) {
  // Entries live in shared pointers; one on the stack is posted without ownership.
  std::shared_ptr<QSBackupEntry> self = weak_from_this().lock();
  if (!self) self = std::shared_ptr<QSBackupEntry>(std::shared_ptr<QSBackupEntry>(), this);
  platform::NotificationCenter::defaultCenter().post(name, self);
}

void QSBackupEntry::setVersionDepth(uint32_t value) {
  versionDepth_ = value;
  post(QSVersionDepthChangedNotification);
}

void QSBackupEntry::setScheduled(bool value) {
  isScheduled_ = value;
  post(QSScheduledStatusChangedNotification);
}

void QSBackupEntry::setPersistent(bool value) {
  isPersistent_ = value;
  post(QSPersistentStatusChangedNotification);
}

void QSBackupEntry::setMountPoint(const std::string& value) {
  mountPoint_ = value;
  post(QSMountPointChangedNotification);
}

void QSBackupEntry::setExclusionExpression(const std::optional<std::string>& expression) {
  exclusionExpression_ = expression;
  exclusionFilter_.reset();
  if (!expression) return;
  try {
    exclusionFilter_ = platform::RegexPredicate::selfMatchesCaseInsensitive(*expression);
  } catch (const platform::Exception& e) {
    platform::Log::format("Exclusion expression of backup %s does not compile and is not applied: %s", uid_.c_str(),
                          e.reason().c_str());
  }
}

void QSBackupEntry::storeAndObserve(const std::string& key, const std::shared_ptr<QSCategoryEntry>& category) {
  managedCategories_[key] = category;
  category->addObserver_forKeyPath_options_context(
      this, QSCategoryEntry::kScheduledKey, platform::kKeyValueObservingOptionNew | platform::kKeyValueObservingOptionOld,
      nullptr);
}

void QSBackupEntry::addCategoryWithIdentifier(const std::string& identifier) {
  if (managedCategories_.count(identifier)) return;
  storeAndObserve(identifier, QSCategoryEntry::initWithIdentifier(identifier));
}

void QSBackupEntry::removeCategoryWithIdentifier(const std::string& identifier) {
  auto it = managedCategories_.find(identifier);
  if (it == managedCategories_.end()) return;
  it->second->removeObserver_forKeyPath(this, QSCategoryEntry::kScheduledKey);
  managedCategories_.erase(it);
}

void QSBackupEntry::removeAllCategories() {
  for (auto& [identifier, category] : managedCategories_)
    category->removeObserver_forKeyPath(this, QSCategoryEntry::kScheduledKey);
  managedCategories_.clear();
}

std::shared_ptr<QSCategoryEntry> QSBackupEntry::categoryWithIdentifier(const std::string& identifier) const {
  auto it = managedCategories_.find(identifier);
  return it == managedCategories_.end() ? nullptr : it->second;
}

std::set<std::string> QSBackupEntry::scheduledCategories() const {
  std::set<std::string> out;
  for (const auto& [identifier, category] : managedCategories_)
    if (category->isScheduled()) out.insert(identifier);
  return out;
}

void QSBackupEntry::setManagedCategories(const CategoryMap& categories) {
  // Copy first: the argument may be this entry's own map.
  std::vector<std::pair<std::string, std::shared_ptr<QSCategoryEntry>>> copies;
  copies.reserve(categories.size());
  for (const auto& [key, category] : categories)
    if (category) copies.emplace_back(key, category->mutableCopy());
  removeAllCategories();
  for (auto& [key, copy] : copies) storeAndObserve(key, copy);
}

void QSBackupEntry::observeValueForKeyPath_ofObject_change_context(const std::string& keyPath,
                                                                   const platform::KeyValueObservable*,
                                                                   const platform::KeyValueChangeInfo&, void*) {
  if (keyPath == QSCategoryEntry::kScheduledKey) post(QSScheduledCategoriesChangedNotification);
}

std::string QSBackupEntry::description() const {
  // The categories print as a dictionary of their descriptions, keys sorted.
  std::string categories = "{\n";
  for (const auto& [identifier, category] : managedCategories_)
    categories += "    " + identifier + " = " + category->description() + ";\n";
  categories += "}";
  return platform::format(
      "\n   machineName: %s\n  sourceFormat: %s\n shortUserName: %s\n  longUserName: %s\n      userHome: %s\n    "
      "mountPoint: %s\n   BSDNodeName: %s\n    volumeName: %s\n  isPersistent: %s\n   isScheduled: %s\ncompletionDate: "
      "%s\n        period: %f\n version depth: %d\n excl.  filter: %s\nmanagedCategories:\n%s\n",
      machineName_.c_str(), sourceFormat_.c_str(), shortUserName_.c_str(), longUserName_.c_str(), userHome_.c_str(),
      mountPoint_.c_str(), BSDName_.c_str(), volumeName_.c_str(), platform::yesNo(isPersistent_),
      platform::yesNo(isScheduled_), completionDate_.description().c_str(), period_, static_cast<int>(versionDepth_),
      exclusionExpression_ ? exclusionExpression_->c_str() : "(null)", categories.c_str());
}
