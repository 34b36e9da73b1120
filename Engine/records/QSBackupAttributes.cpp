#include "Engine/records/QSBackupAttributes.h"

std::optional<std::string> QSBackupAttributes::stringForKey(const char* key) const {
  const platform::Value* v = dictionary_.find(key);
  if (!v || !v->isString()) return std::nullopt;
  return *v->asString();
}

bool QSBackupAttributes::booleanForKey(const char* key) const {
  const platform::Value* v = dictionary_.find(key);
  return v && v->boolValue();
}

bool QSBackupAttributes::isSourceFormatHFSPlus() const {
  auto format = sourceFormat();
  return format && *format == kQSBackupPlistKey_SourceFormat_HFSPlus;
}

std::optional<platform::Array> QSBackupAttributes::managedCategories() const {
  const platform::Value* v = dictionary_.find(kManagedCategories);
  if (!v || !v->isArray()) return std::nullopt;
  return *v->asArray();
}

std::optional<platform::Date> QSBackupAttributes::completionDate() const {
  const platform::Value* v = dictionary_.find(kCompletionDate);
  if (!v || !v->isDate()) return std::nullopt;
  return *v->asDate();
}

double QSBackupAttributes::period() const {
  const platform::Value* v = dictionary_.find(kPeriod);
  return v ? v->doubleValue() : 0.0;
}

uint32_t QSBackupAttributes::versionDepth() const {
  const platform::Value* v = dictionary_.find(kVersionDepth);
  return v ? v->uint32Value() : 0;
}
