// The coding of the conversion's model in its state file.
//
// Each model object is archived as a dictionary of property-list values:
// "$class" names its class and the keys of the object's fields hold their
// values; a missing object (a field that is "nothing", or the null marker
// of a list of dates) is the string "$null", as keyed archives write it.
// Decoding is strict because the state file comes from a disk anyone may
// have written: a value of the wrong kind, lists of unequal length, or a
// path or name that would lead outside the legacy folder make the whole
// archive unreadable, and the conversion then starts over.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Value.h"

namespace vessa_archive {

inline constexpr const char* kClassKey = "$class";
inline constexpr const char* kNullMarker = "$null";

platform::Value null();
bool isNull(const platform::Value& value);
platform::Value dateOrNull(const std::optional<platform::Date>& date);
platform::Value stringOrNull(const std::optional<std::string>& text);
platform::Value strings(const std::vector<std::string>& list);
platform::Value datesOrNulls(const std::vector<std::optional<platform::Date>>& list);
// A new archive dictionary of the class.
platform::Dictionary objectOfClass(const char* className);

// The archive dictionary of `value` when it is one of `className`; nullptr otherwise.
const platform::Dictionary* decodeObject(const platform::Value& value, const char* className);
bool decodeString(const platform::Dictionary& archive, const char* key, std::string* out);
bool decodeStringOrNull(const platform::Dictionary& archive, const char* key, std::optional<std::string>* out);
bool decodeBoolean(const platform::Dictionary& archive, const char* key, bool* out);
bool decodeInt32(const platform::Dictionary& archive, const char* key, int32_t* out);
bool decodeStrings(const platform::Dictionary& archive, const char* key, std::vector<std::string>* out);
bool decodeDatesOrNulls(const platform::Dictionary& archive, const char* key,
                        std::vector<std::optional<platform::Date>>* out);
// The array or dictionary under `key`; nullptr when it is something else.
const platform::Array* decodeArray(const platform::Dictionary& archive, const char* key);
const platform::Dictionary* decodeDictionary(const platform::Dictionary& archive, const char* key);

// Whether `name` is one entry name (not empty, no "/", not "." or "..").
bool isEntryName(const std::string& name);
// Whether `path` is a relative path of entry names joined by "/" ("" is allowed).
bool isRelativePath(const std::string& path);

}  // namespace vessa_archive
