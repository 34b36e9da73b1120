#include "Engine/conversion/QSVessaArchiving.h"

#include "platform/VolumeFolder.h"

namespace vessa_archive {

platform::Value null() { return platform::Value(kNullMarker); }

bool isNull(const platform::Value& value) {
  const std::string* text = value.asString();
  return text && *text == kNullMarker;
}

platform::Value dateOrNull(const std::optional<platform::Date>& date) {
  return date ? platform::Value(*date) : null();
}

platform::Value stringOrNull(const std::optional<std::string>& text) {
  return text ? platform::Value(*text) : null();
}

platform::Value strings(const std::vector<std::string>& list) {
  platform::Array array;
  array.reserve(list.size());
  for (const std::string& item : list) array.emplace_back(item);
  return platform::Value(std::move(array));
}

platform::Value datesOrNulls(const std::vector<std::optional<platform::Date>>& list) {
  platform::Array array;
  array.reserve(list.size());
  for (const auto& item : list) array.push_back(dateOrNull(item));
  return platform::Value(std::move(array));
}

platform::Dictionary objectOfClass(const char* className) {
  platform::Dictionary archive;
  archive.set(kClassKey, platform::Value(className));
  return archive;
}

const platform::Dictionary* decodeObject(const platform::Value& value, const char* className) {
  const platform::Dictionary* archive = value.asDictionary();
  if (!archive) return nullptr;
  const platform::Value* name = archive->find(kClassKey);
  const std::string* text = name ? name->asString() : nullptr;
  return text && *text == className ? archive : nullptr;
}

bool decodeString(const platform::Dictionary& archive, const char* key, std::string* out) {
  const platform::Value* value = archive.find(key);
  const std::string* text = value ? value->asString() : nullptr;
  if (!text || *text == kNullMarker) return false;
  *out = *text;
  return true;
}

bool decodeStringOrNull(const platform::Dictionary& archive, const char* key, std::optional<std::string>* out) {
  const platform::Value* value = archive.find(key);
  if (!value || isNull(*value)) {
    *out = std::nullopt;
    return true;
  }
  const std::string* text = value->asString();
  if (!text) return false;
  *out = *text;
  return true;
}

bool decodeBoolean(const platform::Dictionary& archive, const char* key, bool* out) {
  const platform::Value* value = archive.find(key);
  if (!value || !value->isNumber()) return false;
  *out = value->boolValue();
  return true;
}

bool decodeInt32(const platform::Dictionary& archive, const char* key, int32_t* out) {
  const platform::Value* value = archive.find(key);
  if (!value || !value->isNumber()) return false;
  const int64_t number = value->int64Value();
  if (number < INT32_MIN || number > INT32_MAX) return false;
  *out = static_cast<int32_t>(number);
  return true;
}

bool decodeStrings(const platform::Dictionary& archive, const char* key, std::vector<std::string>* out) {
  const platform::Array* array = decodeArray(archive, key);
  if (!array) return false;
  out->clear();
  out->reserve(array->size());
  for (const platform::Value& item : *array) {
    const std::string* text = item.asString();
    if (!text) return false;
    out->push_back(*text);
  }
  return true;
}

bool decodeDatesOrNulls(const platform::Dictionary& archive, const char* key,
                        std::vector<std::optional<platform::Date>>* out) {
  const platform::Array* array = decodeArray(archive, key);
  if (!array) return false;
  out->clear();
  out->reserve(array->size());
  for (const platform::Value& item : *array) {
    if (isNull(item)) {
      out->push_back(std::nullopt);
    } else if (const platform::Date* date = item.asDate()) {
      out->push_back(*date);
    } else {
      return false;
    }
  }
  return true;
}

const platform::Array* decodeArray(const platform::Dictionary& archive, const char* key) {
  const platform::Value* value = archive.find(key);
  return value ? value->asArray() : nullptr;
}

const platform::Dictionary* decodeDictionary(const platform::Dictionary& archive, const char* key) {
  const platform::Value* value = archive.find(key);
  return value ? value->asDictionary() : nullptr;
}

bool isEntryName(const std::string& name) { return platform::VolumeFolder::isEntryName(name); }

bool isRelativePath(const std::string& path) {
  if (path.empty()) return true;
  size_t start = 0;
  while (true) {
    const size_t slash = path.find('/', start);
    if (!isEntryName(path.substr(start, slash == std::string::npos ? std::string::npos : slash - start))) return false;
    if (slash == std::string::npos) return true;
    start = slash + 1;
  }
}

}  // namespace vessa_archive
