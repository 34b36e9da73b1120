// Property-list values: string, integer, real, boolean, date, data, array
// and dictionary.
//
// A Value is an immutable value with cheap copies: arrays and dictionaries
// are shared between copies and never changed once wrapped in a Value.  To
// change a collection, copy it out (`array()`, `dictionary()`), change the
// copy, and wrap it again.  Values may be shared between threads freely.
//
// Numbers follow the rules of Foundation's number objects: integers keep
// whether they were made signed or unsigned, every number answers every
// numeric getter with a conversion, and numbers compare equal by value
// across kinds (1 == 1.0 == true).  Strings answer the numeric getters the
// way Foundation strings do ("12abc" reads as 12, "YES" as true).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Date.h"

namespace platform {

using Bytes = std::vector<uint8_t>;
class Value;
class Dictionary;
using Array = std::vector<Value>;

class Value {
 public:
  enum class Type : uint8_t { String, Integer, Real, Boolean, Date, Data, Array, Dictionary };

  // The default value is the empty string.
  Value();
  Value(std::string s);                       // NOLINT(google-explicit-constructor)
  Value(const char* s);                       // NOLINT(google-explicit-constructor)
  Value(std::string_view s);                  // NOLINT(google-explicit-constructor)
  Value(platform::Date d);                    // NOLINT(google-explicit-constructor)
  Value(platform::Array a);                   // NOLINT(google-explicit-constructor)
  Value(platform::Dictionary d);              // NOLINT(google-explicit-constructor)
  Value(bool) = delete;                       // use boolean(): avoids pointer-to-bool surprises
  Value(int) = delete;                        // use integer() or unsignedInteger()

  static Value integer(int64_t v);
  static Value unsignedInteger(uint64_t v);
  static Value real(double v);
  static Value boolean(bool v);
  static Value data(Bytes bytes);

  Type type() const;
  bool isString() const { return type() == Type::String; }
  bool isNumber() const;  // integer, real or boolean
  bool isInteger() const { return type() == Type::Integer; }
  bool isUnsignedInteger() const;
  bool isReal() const { return type() == Type::Real; }
  bool isBoolean() const { return type() == Type::Boolean; }
  bool isDate() const { return type() == Type::Date; }
  bool isData() const { return type() == Type::Data; }
  bool isArray() const { return type() == Type::Array; }
  bool isDictionary() const { return type() == Type::Dictionary; }

  // Typed access: nullptr when the value is of another type.
  const std::string* asString() const;
  const platform::Date* asDate() const;
  const Bytes* asData() const;
  const platform::Array* asArray() const;
  const platform::Dictionary* asDictionary() const;

  // Copies of the collections, for building changed versions.
  platform::Array array() const;
  platform::Dictionary dictionary() const;

  // Identity of a shared collection (nullptr for scalars): two Values made by
  // copying one another share it.
  const void* collectionIdentity() const;

  // Numeric getters, converting like Foundation's number and string objects.
  // Dates, data and collections answer 0 / false.
  int64_t int64Value() const;
  uint64_t uint64Value() const;
  uint32_t uint32Value() const { return static_cast<uint32_t>(uint64Value()); }
  double doubleValue() const;
  bool boolValue() const;

  // Equality by value (Foundation's isEqual:): numbers compare numerically,
  // dictionaries ignore key order.
  bool operator==(const Value& other) const;
  bool operator!=(const Value& other) const { return !(*this == other); }

  // Foundation's description of the value, as printed by "%@" in logs.
  // `indent` is the nesting level of collections.
  std::string description(unsigned indent = 0) const;

 private:
  struct Integer {
    int64_t bits;
    bool isUnsigned;
  };
  struct Boolean {
    bool value;
  };
  using Storage = std::variant<std::string, Integer, double, Boolean, platform::Date, std::shared_ptr<const Bytes>,
                               std::shared_ptr<const platform::Array>, std::shared_ptr<const platform::Dictionary>>;
  explicit Value(Storage s) : storage_(std::move(s)) {}
  Storage storage_;
};

// A string-keyed dictionary that keeps its keys in insertion order (the order
// in which property-list files are written).  Replacing a key's value keeps
// its place.  Equality ignores order.
class Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;
  using const_iterator = std::vector<Entry>::const_iterator;

  Dictionary() = default;
  Dictionary(std::initializer_list<Entry> entries);

  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

  // objectForKey: nullptr when absent.
  const Value* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // setObject:forKey:
  void set(std::string key, Value value);
  // removeObjectForKey: answers whether the key was present.
  bool remove(std::string_view key);
  void clear();
  std::vector<std::string> keys() const;

  bool operator==(const Dictionary& other) const;
  bool operator!=(const Dictionary& other) const { return !(*this == other); }

  std::string description(unsigned indent = 0) const;

 private:
  std::optional<size_t> indexOf(std::string_view key) const;
  void rebuildIndex();

  std::vector<Entry> entries_;
  // Built once the dictionary grows beyond a few keys; small ones are searched linearly.
  std::unordered_map<std::string, size_t> index_;
};

// Foundation's description of an array.
std::string describeArray(const Array& array, unsigned indent = 0);

}  // namespace platform
