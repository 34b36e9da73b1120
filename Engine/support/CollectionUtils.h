// Small helpers on objects and collections: checked casts, equality with
// none, retaining setters, dictionary literals that skip absent values,
// mapping over collections, boxing typed values, set operations that reuse
// their arguments, and key-value-observed set mutation.  They hold no state.
//
// "Objects" are shared pointers; "none" is an empty pointer (or an empty
// optional).  Only the casts raise: platform::Exception named
// "NSInvalidArgumentException" with the reason "%@ required, but got %@ %p".
// The names beginning with "$" are kept as the system names them; GCC and
// Clang both accept "$" in identifiers.
#pragma once

#include <any>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Exception.h"
#include "platform/KeyValueObserving.h"
#include "platform/TypeName.h"
#include "platform/Value.h"

namespace collection_utils_detail {
[[noreturn]] void raiseCastFailure(const std::string& required, const std::string& got, const void* address);

template <class T, class U>
std::shared_ptr<T> dynamicCast(const std::shared_ptr<U>& object) {
  if constexpr (std::is_base_of_v<T, U>)
    return std::static_pointer_cast<T>(object);
  else if constexpr (std::is_polymorphic_v<U>)
    return std::dynamic_pointer_cast<T>(object);
  else
    return nullptr;
}

template <class U>
std::string dynamicTypeName(const std::shared_ptr<U>& object) {
  if (!object) return "nil";
  if constexpr (std::is_polymorphic_v<U>)
    return platform::typeName(typeid(*object));
  else
    return platform::typeName<U>();
}
}  // namespace collection_utils_detail

// ---- Casts and comparisons ----

// None stays none; an object of class T (or a subclass) is returned as a T;
// anything else raises.
template <class T, class U>
std::shared_ptr<T> _cast(const std::shared_ptr<U>& object) {
  if (!object) return nullptr;
  if (auto cast = collection_utils_detail::dynamicCast<T>(object)) return cast;
  collection_utils_detail::raiseCastFailure(platform::typeName<T>(), collection_utils_detail::dynamicTypeName(object),
                                            object.get());
}

// As _cast, but none raises too.
template <class T, class U>
std::shared_ptr<T> _castNotNil(const std::shared_ptr<U>& object) {
  if (!object) collection_utils_detail::raiseCastFailure(platform::typeName<T>(), "nil", nullptr);
  return _cast<T>(object);
}

// The object as a T when it is one, else none; never raises.
template <class T, class U>
std::shared_ptr<T> _castIf(const std::shared_ptr<U>& object) {
  if (!object) return nullptr;
  return collection_utils_detail::dynamicCast<T>(object);
}

// Checks the collection (none stays none), then every element, with _cast;
// answers the collection as an array of T.
template <class T, class U>
std::optional<std::vector<std::shared_ptr<T>>> _castArrayOf(const std::optional<std::vector<std::shared_ptr<U>>>& array) {
  if (!array) return std::nullopt;
  std::vector<std::shared_ptr<T>> out;
  out.reserve(array->size());
  for (const auto& element : *array) out.push_back(_cast<T>(element));
  return out;
}
template <class T, class U>
std::vector<std::shared_ptr<T>> _castArrayOf(const std::vector<std::shared_ptr<U>>& array) {
  return *_castArrayOf<T>(std::optional<std::vector<std::shared_ptr<U>>>(array));
}

// True when both are none, or both are present and equal by value.
template <class T>
bool $equal(const std::shared_ptr<T>& a, const std::shared_ptr<T>& b) {
  if (!a || !b) return !a && !b;
  return a == b || *a == *b;
}
template <class T>
bool $equal(const std::optional<T>& a, const std::optional<T>& b) {
  if (!a || !b) return !a && !b;
  return *a == *b;
}

// None for a null C string; else the bytes read as UTF-8.
std::optional<std::string> $string(const char* cString);

// ---- Setters over an owned object field ----

// Same object: nothing.  Otherwise the field takes the new value.  Answers the new value.
template <class T>
std::shared_ptr<T> setObj(std::shared_ptr<T>* field, std::shared_ptr<T> value) {
  if (*field != value) *field = std::move(value);
  return *field;
}

// As setObj, keeping a copy of the new value.
template <class T>
std::shared_ptr<T> setObjCopy(std::shared_ptr<T>* field, const std::shared_ptr<T>& value) {
  if (*field == value) return *field;
  *field = value ? std::make_shared<T>(*value) : nullptr;
  return *field;
}

// False, and nothing changes, when the new value is the same object or equal
// by value; otherwise the field takes it and the answer is true.
template <class T>
bool ifSetObj(std::shared_ptr<T>* field, std::shared_ptr<T> value) {
  if (*field == value || $equal(*field, value)) return false;
  *field = std::move(value);
  return true;
}

// As ifSetObj, keeping a copy.
template <class T>
bool ifSetObjCopy(std::shared_ptr<T>* field, const std::shared_ptr<T>& value) {
  if (*field == value || $equal(*field, value)) return false;
  *field = value ? std::make_shared<T>(*value) : nullptr;
  return true;
}

// ---- Building collections ----

using KeyValuePair = std::pair<std::string, std::optional<platform::Value>>;

// A dictionary of the pairs whose value is present (the first `count` pairs).
const platform::Dictionary _dictof(const KeyValuePair* pairs, size_t count);
platform::Dictionary _mdictof(const KeyValuePair* pairs, size_t count);
inline const platform::Dictionary _dictof(std::initializer_list<KeyValuePair> pairs) {
  return _dictof(pairs.begin(), pairs.size());
}
inline platform::Dictionary _mdictof(std::initializer_list<KeyValuePair> pairs) {
  return _mdictof(pairs.begin(), pairs.size());
}

namespace collection_utils_detail {
template <class R>
bool isNone(const R& r) {
  if constexpr (requires { r.has_value(); })
    return !r.has_value();
  else if constexpr (requires { r == nullptr; })
    return r == nullptr;
  else
    return false;
}
}  // namespace collection_utils_detail

// A new array, in the collection's order, of each element's answer to
// `selector`, with `fallback` in place of a none answer.
template <class Collection, class Selector, class Default>
auto $apply(const Collection& collection, Selector selector, const Default& fallback) {
  using Answer = std::decay_t<std::invoke_result_t<Selector, decltype(*std::begin(collection))>>;
  std::vector<Answer> out;
  for (const auto& element : collection) {
    Answer answer = std::invoke(selector, element);
    out.push_back(collection_utils_detail::isNone(answer) ? Answer(fallback) : std::move(answer));
  }
  return out;
}

// The value of a dotted key path: each step asks the current object's
// valueForKey (for a KeyValueObservable, held as a shared or plain pointer)
// or looks the key up in a property-list dictionary.  Empty when a step
// finds nothing.
std::any valueForKeyPath(const std::any& object, const std::string& keyPath);

// As $apply, with each element's value for `keyPath`.
template <class Collection>
std::vector<std::any> $applyKeyPath(const Collection& collection, const std::string& keyPath,
                                    const std::any& fallback) {
  std::vector<std::any> out;
  for (const auto& element : collection) {
    std::any value = valueForKeyPath(std::any(element), keyPath);
    out.push_back(value.has_value() ? std::move(value) : fallback);
  }
  return out;
}

// ---- Boxing ----

// An opaque value: the bytes of a value of a type that has no box of its own.
struct QSOpaqueValue {
  std::vector<uint8_t> bytes;
  std::string typeCode;
  bool operator==(const QSOpaqueValue&) const = default;
};

// A number with the type it was made from (the type code: "c", "i", "Q", "d", ...).
struct QSNumber {
  char objCType;
  platform::Value value;
  bool operator==(const QSNumber& other) const { return objCType == other.objCType && value == other.value; }
};

// What _box answers: an object (for "@"), a string (for "*"), a number, an
// opaque value, or none (for a null "@" or "*").
using QSBoxedValue = std::any;

// Boxes the value at `value` according to its type code, after skipping a
// leading const marker "r": "@" the object itself (`value` points to a
// std::shared_ptr<void>); "*" a string from a UTF-8 C string (`value` points
// to a const char*); "c" "C" "s" "S" "i" "I" "l" "L" "q" "Q" "f" "d" a
// QSNumber of that type; anything else a QSOpaqueValue of `size` bytes.
QSBoxedValue _box(const void* value, const char* typeCode, size_t size = 0);

// The type code of a C++ type, as _box reads it.
template <class T>
constexpr const char* QSTypeCode() {
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_same_v<U, char> || std::is_same_v<U, signed char>) return "c";
  else if constexpr (std::is_same_v<U, unsigned char>) return "C";
  else if constexpr (std::is_same_v<U, short>) return "s";
  else if constexpr (std::is_same_v<U, unsigned short>) return "S";
  else if constexpr (std::is_same_v<U, int>) return "i";
  else if constexpr (std::is_same_v<U, unsigned int>) return "I";
  else if constexpr (std::is_same_v<U, long> && sizeof(long) == 4) return "l";
  else if constexpr (std::is_same_v<U, unsigned long> && sizeof(long) == 4) return "L";
  else if constexpr (std::is_same_v<U, long> || std::is_same_v<U, long long>) return "q";
  else if constexpr (std::is_same_v<U, unsigned long> || std::is_same_v<U, unsigned long long>) return "Q";
  else if constexpr (std::is_same_v<U, float>) return "f";
  else if constexpr (std::is_same_v<U, double>) return "d";
  else if constexpr (std::is_same_v<U, const char*> || std::is_same_v<U, char*>) return "*";
  else if constexpr (std::is_same_v<U, std::shared_ptr<void>>) return "@";
  else return "?";
}

// Boxes a typed value with its own type code.
template <class T>
QSBoxedValue box(const T& value) {
  return _box(&value, QSTypeCode<T>(), sizeof(T));
}

// ---- Sets ----
// Sets are shared objects; the answers reuse an argument where the rule says so.

template <class T>
using QSSetPtr = std::shared_ptr<const std::set<T>>;

// A minus B: A itself when A is empty or B is none or empty; an empty set
// when A and B are the same object; else a new set.
template <class T>
QSSetPtr<T> my_differenceOfSet_andSet(const QSSetPtr<T>& a, const QSSetPtr<T>& b) {
  if (!a || a->empty() || !b || b->empty()) return a;
  if (a == b) return std::make_shared<const std::set<T>>();
  std::set<T> out;
  for (const T& x : *a)
    if (!b->count(x)) out.insert(x);
  return std::make_shared<const std::set<T>>(std::move(out));
}

// A when A and B are the same object or A is empty; B when B is empty; else a new set.
template <class T>
QSSetPtr<T> my_intersectionOfSet_andSet(const QSSetPtr<T>& a, const QSSetPtr<T>& b) {
  if (a == b || !a || a->empty()) return a;
  if (!b || b->empty()) return b;
  std::set<T> out;
  for (const T& x : *a)
    if (b->count(x)) out.insert(x);
  return std::make_shared<const std::set<T>>(std::move(out));
}

// A when they are the same object or B is empty; B when A is empty; else a new set.
template <class T>
QSSetPtr<T> my_unionOfSet_andSet(const QSSetPtr<T>& a, const QSSetPtr<T>& b) {
  if (a == b || !b || b->empty()) return a;
  if (!a || a->empty()) return b;
  std::set<T> out(*a);
  out.insert(b->begin(), b->end());
  return std::make_shared<const std::set<T>>(std::move(out));
}

// ---- Arrays ----

// Whether the array holds that very object.
template <class T>
bool my_containsObjectIdenticalTo(const std::vector<std::shared_ptr<T>>& array, const std::shared_ptr<T>& object) {
  for (const auto& element : array)
    if (element == object) return true;
  return false;
}

// The bytes read as UTF-8 text.
std::string my_UTF8ToString(const platform::Bytes& data);

// Replaces each element, in place and in order, with the function's result for it.
template <class T, class Function>
void transformUsingFunction(std::vector<T>& array, Function function) {
  for (T& element : array) element = function(element);
}

// Appends every object the enumerator yields; the enumerator answers none
// (an empty optional or pointer) when it is exhausted.
template <class T, class Enumerator>
void addObjectsOfEnumerator(std::vector<T>& array, Enumerator next) {
  while (true) {
    auto object = next();
    if (collection_utils_detail::isNone(object)) break;
    if constexpr (requires { *object; } && !std::is_same_v<std::decay_t<decltype(object)>, T>)
      array.push_back(*object);
    else
      array.push_back(std::move(object));
  }
}

// ---- Key-value-observed set mutation ----

// False when the set already holds `object`; otherwise announces a union
// change of `key` with a one-element set, adds, announces its end, answers true.
template <class T>
bool kvAddToSet(platform::KeyValueObservable* owner, const std::string& key, std::set<T>& set, const T& object) {
  if (set.count(object)) return false;
  const std::set<T> objects = {object};
  owner->willChangeValueForKey_withSetMutation_usingObjects(key, platform::KeyValueSetMutation::Union, objects);
  set.insert(object);
  owner->didChangeValueForKey_withSetMutation_usingObjects(key, platform::KeyValueSetMutation::Union, objects);
  return true;
}

// False when the set does not hold `object`; otherwise the same with a minus change and a removal.
template <class T>
bool kvRemoveFromSet(platform::KeyValueObservable* owner, const std::string& key, std::set<T>& set,
                     const T& object) {
  if (!set.count(object)) return false;
  const std::set<T> objects = {object};
  owner->willChangeValueForKey_withSetMutation_usingObjects(key, platform::KeyValueSetMutation::Minus, objects);
  set.erase(object);
  owner->didChangeValueForKey_withSetMutation_usingObjects(key, platform::KeyValueSetMutation::Minus, objects);
  return true;
}

// None means the empty set.  False when the sets are equal; otherwise
// announces a set change, replaces the contents, announces its end, answers true.
template <class T>
bool kvSetSet(platform::KeyValueObservable* owner, const std::string& key, std::set<T>& set,
              const std::optional<std::set<T>>& newSet) {
  const std::set<T> replacement = newSet.value_or(std::set<T>());
  if (set == replacement) return false;
  owner->willChangeValueForKey_withSetMutation_usingObjects(key, platform::KeyValueSetMutation::Set, replacement);
  set = replacement;
  owner->didChangeValueForKey_withSetMutation_usingObjects(key, platform::KeyValueSetMutation::Set, replacement);
  return true;
}
