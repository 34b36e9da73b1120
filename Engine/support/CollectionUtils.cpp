#include "Engine/support/CollectionUtils.h"

#include <cstdio>

namespace collection_utils_detail {

void raiseCastFailure(const std::string& required, const std::string& got, const void* address) {
  platform::Exception::raise(platform::kInvalidArgumentException, "%s required, but got %s %p", required.c_str(),
                             got.c_str(), address);
}

}  // namespace collection_utils_detail

std::optional<std::string> $string(const char* cString) {
  if (!cString) return std::nullopt;
  return std::string(cString);
}

namespace {
platform::Dictionary dictionaryOf(const KeyValuePair* pairs, size_t count) {
  platform::Dictionary out;
  for (size_t i = 0; i < count; ++i)
    if (pairs[i].second) out.set(pairs[i].first, *pairs[i].second);
  return out;
}
}  // namespace

const platform::Dictionary _dictof(const KeyValuePair* pairs, size_t count) { return dictionaryOf(pairs, count); }
platform::Dictionary _mdictof(const KeyValuePair* pairs, size_t count) { return dictionaryOf(pairs, count); }

std::any valueForKeyPath(const std::any& object, const std::string& keyPath) {
  std::any current = object;
  size_t start = 0;
  while (current.has_value()) {
    const size_t dot = keyPath.find('.', start);
    const std::string key = keyPath.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    std::any next;
    if (const auto* observable = std::any_cast<const platform::KeyValueObservable*>(&current)) {
      if (*observable) next = (*observable)->valueForKey(key);
    } else if (const auto* shared = std::any_cast<std::shared_ptr<platform::KeyValueObservable>>(&current)) {
      if (*shared) next = (*shared)->valueForKey(key);
    } else if (const auto* value = std::any_cast<platform::Value>(&current)) {
      if (const auto* dictionary = value->asDictionary())
        if (const platform::Value* found = dictionary->find(key)) next = *found;
    } else if (const auto* dictionary = std::any_cast<platform::Dictionary>(&current)) {
      if (const platform::Value* found = dictionary->find(key)) next = *found;
    }
    current = std::move(next);
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  return current;
}

std::string my_UTF8ToString(const platform::Bytes& data) { return std::string(data.begin(), data.end()); }

QSBoxedValue _box(const void* value, const char* typeCode, size_t size) {
  if (!typeCode) typeCode = "";
  if (*typeCode == 'r') ++typeCode;
  const std::string code = typeCode;
  auto number = [&](platform::Value v) -> QSBoxedValue { return QSNumber{code[0], std::move(v)}; };
  auto read = [&](auto zero) {
    decltype(zero) v;
    std::memcpy(&v, value, sizeof v);
    return v;
  };
  if (code == "@") {
    const auto& object = *static_cast<const std::shared_ptr<void>*>(value);
    if (!object) return {};
    return object;
  }
  if (code == "*") {
    const char* s = *static_cast<const char* const*>(value);
    if (!s) return {};
    return std::string(s);
  }
  if (code == "c") return number(platform::Value::integer(read(static_cast<signed char>(0))));
  if (code == "C") return number(platform::Value::unsignedInteger(read(static_cast<unsigned char>(0))));
  if (code == "s") return number(platform::Value::integer(read(static_cast<short>(0))));
  if (code == "S") return number(platform::Value::unsignedInteger(read(static_cast<unsigned short>(0))));
  if (code == "i") return number(platform::Value::integer(read(0)));
  if (code == "I") return number(platform::Value::unsignedInteger(read(0u)));
  if (code == "l") return number(platform::Value::integer(read(static_cast<int32_t>(0))));
  if (code == "L") return number(platform::Value::unsignedInteger(read(static_cast<uint32_t>(0))));
  if (code == "q") return number(platform::Value::integer(read(static_cast<int64_t>(0))));
  if (code == "Q") return number(platform::Value::unsignedInteger(read(static_cast<uint64_t>(0))));
  if (code == "f") return number(platform::Value::real(read(0.0f)));
  if (code == "d") return number(platform::Value::real(read(0.0)));
  QSOpaqueValue opaque;
  const auto* bytes = static_cast<const uint8_t*>(value);
  if (bytes) opaque.bytes.assign(bytes, bytes + size);
  opaque.typeCode = code;
  return opaque;
}
