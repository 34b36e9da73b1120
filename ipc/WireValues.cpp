#include "ipc/WireValues.h"

#include <sdbus-c++/Error.h>

#include "platform/PropertyList.h"

namespace wire {
namespace {

constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

platform::Value fromVariantAt(const sdbus::Variant& v, unsigned depth);

platform::Dictionary dictionaryAt(const std::map<std::string, sdbus::Variant>& d, unsigned depth) {
  platform::Dictionary out;
  for (const auto& [key, value] : d) out.set(key, fromVariantAt(value, depth + 1));
  return out;
}

platform::Value fromVariantAt(const sdbus::Variant& v, unsigned depth) {
  if (depth > platform::PropertyList::kMaxDepth) throw sdbus::Error(kInvalidArgs, "values are nested too deeply");
  const std::string type = v.peekValueType();
  if (type == "s" || type == "o" || type == "g") {
    if (type == "s") return platform::Value(v.get<std::string>());
    if (type == "o") return platform::Value(std::string(v.get<sdbus::ObjectPath>()));
    return platform::Value(std::string(v.get<sdbus::Signature>()));
  }
  if (type == "x") return platform::Value::integer(v.get<int64_t>());
  if (type == "t") return platform::Value::unsignedInteger(v.get<uint64_t>());
  if (type == "i") return platform::Value::integer(v.get<int32_t>());
  if (type == "u") return platform::Value::unsignedInteger(v.get<uint32_t>());
  if (type == "n") return platform::Value::integer(v.get<int16_t>());
  if (type == "q") return platform::Value::unsignedInteger(v.get<uint16_t>());
  if (type == "y") return platform::Value::unsignedInteger(v.get<uint8_t>());
  if (type == "d") return platform::Value::real(v.get<double>());
  if (type == "b") return platform::Value::boolean(v.get<bool>());
  if (type == "ay") return platform::Value::data(v.get<std::vector<uint8_t>>());
  if (type == "(d)") return platform::Value(platform::Date(std::get<0>(v.get<sdbus::Struct<double>>())));
  if (type == "av") {
    platform::Array out;
    for (const auto& item : v.get<std::vector<sdbus::Variant>>()) out.push_back(fromVariantAt(item, depth + 1));
    return platform::Value(std::move(out));
  }
  if (type == "a{sv}") return platform::Value(dictionaryAt(v.get<std::map<std::string, sdbus::Variant>>(), depth));
  throw sdbus::Error(kInvalidArgs, "a property-list value cannot be of the type " + type);
}

}  // namespace

sdbus::Variant toVariant(const platform::Value& value) {
  switch (value.type()) {
    case platform::Value::Type::String: return sdbus::Variant(*value.asString());
    case platform::Value::Type::Integer:
      return value.isUnsignedInteger() ? sdbus::Variant(value.uint64Value()) : sdbus::Variant(value.int64Value());
    case platform::Value::Type::Real: return sdbus::Variant(value.doubleValue());
    case platform::Value::Type::Boolean: return sdbus::Variant(value.boolValue());
    case platform::Value::Type::Date:
      return sdbus::Variant(sdbus::Struct<double>(value.asDate()->timeIntervalSinceReferenceDate()));
    case platform::Value::Type::Data: return sdbus::Variant(*value.asData());
    case platform::Value::Type::Array: {
      std::vector<sdbus::Variant> out;
      for (const auto& item : *value.asArray()) out.push_back(toVariant(item));
      return sdbus::Variant(out);
    }
    case platform::Value::Type::Dictionary: return sdbus::Variant(toWireDictionary(*value.asDictionary()));
  }
  return sdbus::Variant(std::string());
}

platform::Value fromVariant(const sdbus::Variant& variant) { return fromVariantAt(variant, 0); }

std::map<std::string, sdbus::Variant> toWireDictionary(const platform::Dictionary& dictionary) {
  std::map<std::string, sdbus::Variant> out;
  for (const auto& [key, value] : dictionary) out.emplace(key, toVariant(value));
  return out;
}

platform::Dictionary fromWireDictionary(const std::map<std::string, sdbus::Variant>& dictionary) {
  return dictionaryAt(dictionary, 0);
}

}  // namespace wire
