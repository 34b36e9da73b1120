#include "platform/Value.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace platform {
namespace {

constexpr size_t kIndexThreshold = 16;

// Foundation strings read as numbers from their leading decimal text.
int64_t stringToInt64(const std::string& s) {
  const char* p = s.c_str();
  while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\f' || *p == '\v') ++p;
  errno = 0;
  long long v = std::strtoll(p, nullptr, 10);
  return static_cast<int64_t>(v);
}

double stringToDouble(const std::string& s) {
  const char* p = s.c_str();
  while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\f' || *p == '\v') ++p;
  // strtod also reads hexadecimal and "inf"/"nan"; Foundation's doubleValue reads decimal only.
  if ((p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) || ((p[0] == '+' || p[0] == '-') && p[1] == '0' &&
                                                        (p[2] == 'x' || p[2] == 'X')))
    return 0.0;
  char* end = nullptr;
  double v = std::strtod(p, &end);
  if (std::isnan(v) || std::isinf(v)) {
    // "inf", "nan" are not numbers to Foundation; only overflowing digits give infinity.
    const char* q = p;
    if (*q == '+' || *q == '-') ++q;
    if (!(*q >= '0' && *q <= '9') && *q != '.') return 0.0;
  }
  return v;
}

// Foundation's boolValue of a string: leading whitespace, an optional sign
// and zeros are skipped; "Y", "y", "T", "t" or a digit 1-9 is true.
bool stringToBool(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
  while (i < s.size() && s[i] == '0') ++i;
  if (i >= s.size()) return false;
  const char c = s[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

bool needsQuotes(const std::string& s) {
  if (s.empty()) return true;
  for (unsigned char c : s) {
    if (!(std::isalnum(c) || c == '_' || c == '$' || c == '.' || c == '/' || c == ':' || c >= 0x80)) return true;
  }
  return false;
}

std::string quoted(const std::string& s) {
  if (!needsQuotes(s)) return s;
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default: out += c;
    }
  }
  out += '"';
  return out;
}

std::string indentText(unsigned level) { return std::string(static_cast<size_t>(level) * 4, ' '); }

std::string shortestDouble(double v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, res.ptr);
}

// A nested value's text inside a collection: collections begin with their
// own indentation, as Foundation prints them.
std::string nestedDescription(const Value& v, unsigned level) {
  if (v.isArray() || v.isDictionary()) return indentText(level) + v.description(level);
  if (v.isString()) return quoted(*v.asString());
  return v.description(level);
}

}  // namespace

Value::Value() : storage_(std::string()) {}
Value::Value(std::string s) : storage_(std::move(s)) {}
Value::Value(const char* s) : storage_(std::string(s ? s : "")) {}
Value::Value(std::string_view s) : storage_(std::string(s)) {}
Value::Value(platform::Date d) : storage_(d) {}
Value::Value(platform::Array a) : storage_(std::make_shared<const platform::Array>(std::move(a))) {}
Value::Value(platform::Dictionary d) : storage_(std::make_shared<const platform::Dictionary>(std::move(d))) {}

Value Value::integer(int64_t v) { return Value(Storage(Integer{v, false})); }
Value Value::unsignedInteger(uint64_t v) { return Value(Storage(Integer{static_cast<int64_t>(v), true})); }
Value Value::real(double v) { return Value(Storage(v)); }
Value Value::boolean(bool v) { return Value(Storage(Boolean{v})); }
Value Value::data(Bytes bytes) { return Value(Storage(std::make_shared<const Bytes>(std::move(bytes)))); }

Value::Type Value::type() const { return static_cast<Type>(storage_.index()); }

bool Value::isNumber() const {
  const Type t = type();
  return t == Type::Integer || t == Type::Real || t == Type::Boolean;
}

bool Value::isUnsignedInteger() const {
  const auto* i = std::get_if<Integer>(&storage_);
  return i && i->isUnsigned;
}

const std::string* Value::asString() const { return std::get_if<std::string>(&storage_); }
const platform::Date* Value::asDate() const { return std::get_if<platform::Date>(&storage_); }
const Bytes* Value::asData() const {
  const auto* p = std::get_if<std::shared_ptr<const Bytes>>(&storage_);
  return p ? p->get() : nullptr;
}
const platform::Array* Value::asArray() const {
  const auto* p = std::get_if<std::shared_ptr<const platform::Array>>(&storage_);
  return p ? p->get() : nullptr;
}
const platform::Dictionary* Value::asDictionary() const {
  const auto* p = std::get_if<std::shared_ptr<const platform::Dictionary>>(&storage_);
  return p ? p->get() : nullptr;
}

platform::Array Value::array() const {
  const auto* a = asArray();
  return a ? *a : platform::Array();
}

platform::Dictionary Value::dictionary() const {
  const auto* d = asDictionary();
  return d ? *d : platform::Dictionary();
}

const void* Value::collectionIdentity() const {
  if (const auto* a = asArray()) return a;
  if (const auto* d = asDictionary()) return d;
  if (const auto* b = asData()) return b;
  return nullptr;
}

int64_t Value::int64Value() const {
  switch (type()) {
    case Type::Integer: return std::get<Integer>(storage_).bits;
    case Type::Real: {
      const double d = std::get<double>(storage_);
      if (std::isnan(d)) return 0;
      if (d >= 9.2233720368547758e18) return INT64_MAX;
      if (d <= -9.2233720368547758e18) return INT64_MIN;
      return static_cast<int64_t>(d);
    }
    case Type::Boolean: return std::get<Boolean>(storage_).value ? 1 : 0;
    case Type::String: return stringToInt64(std::get<std::string>(storage_));
    default: return 0;
  }
}

uint64_t Value::uint64Value() const {
  if (type() == Type::Real) {
    const double d = std::get<double>(storage_);
    if (std::isnan(d) || d <= 0) return static_cast<uint64_t>(int64Value());
    if (d >= 1.8446744073709552e19) return UINT64_MAX;
    return static_cast<uint64_t>(d);
  }
  return static_cast<uint64_t>(int64Value());
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::Integer: {
      const Integer& i = std::get<Integer>(storage_);
      return i.isUnsigned ? static_cast<double>(static_cast<uint64_t>(i.bits)) : static_cast<double>(i.bits);
    }
    case Type::Real: return std::get<double>(storage_);
    case Type::Boolean: return std::get<Boolean>(storage_).value ? 1.0 : 0.0;
    case Type::String: return stringToDouble(std::get<std::string>(storage_));
    default: return 0.0;
  }
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::Integer: return std::get<Integer>(storage_).bits != 0;
    case Type::Real: return std::get<double>(storage_) != 0.0;
    case Type::Boolean: return std::get<Boolean>(storage_).value;
    case Type::String: return stringToBool(std::get<std::string>(storage_));
    default: return false;
  }
}

bool Value::operator==(const Value& other) const {
  if (isNumber() && other.isNumber()) {
    const Type a = type(), b = other.type();
    if (a == Type::Integer && b == Type::Integer) {
      const Integer& x = std::get<Integer>(storage_);
      const Integer& y = std::get<Integer>(other.storage_);
      if (x.bits != y.bits) return false;
      // The same bits mean different numbers when one is a negative signed value and the other a huge unsigned one.
      return x.isUnsigned == y.isUnsigned || x.bits >= 0;
    }
    if (a == Type::Real || b == Type::Real) return doubleValue() == other.doubleValue();
    return int64Value() == other.int64Value();
  }
  if (type() != other.type()) return false;
  switch (type()) {
    case Type::String: return *asString() == *other.asString();
    case Type::Date: return *asDate() == *other.asDate();
    case Type::Data: return asData() == other.asData() || *asData() == *other.asData();
    case Type::Array: return asArray() == other.asArray() || *asArray() == *other.asArray();
    case Type::Dictionary: return asDictionary() == other.asDictionary() || *asDictionary() == *other.asDictionary();
    default: return false;
  }
}

std::string Value::description(unsigned indent) const {
  switch (type()) {
    case Type::String: return *asString();
    case Type::Integer: {
      const Integer& i = std::get<Integer>(storage_);
      return i.isUnsigned ? std::to_string(static_cast<uint64_t>(i.bits)) : std::to_string(i.bits);
    }
    case Type::Real: return shortestDouble(std::get<double>(storage_));
    case Type::Boolean: return std::get<Boolean>(storage_).value ? "1" : "0";
    case Type::Date: return asDate()->description();
    case Type::Data: {
      static const char* hex = "0123456789abcdef";
      std::string out = "<";
      const Bytes& b = *asData();
      for (size_t i = 0; i < b.size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        out += hex[b[i] >> 4];
        out += hex[b[i] & 15];
      }
      return out + ">";
    }
    case Type::Array: return describeArray(*asArray(), indent);
    case Type::Dictionary: return asDictionary()->description(indent);
  }
  return std::string();
}

std::string describeArray(const Array& array, unsigned indent) {
  std::string out = "(\n";
  for (size_t i = 0; i < array.size(); ++i) {
    out += indentText(indent + 1) + nestedDescription(array[i], indent + 1);
    out += (i + 1 < array.size()) ? ",\n" : "\n";
  }
  return out + indentText(indent) + ")";
}

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  for (const auto& e : entries) set(e.first, e.second);
}

std::optional<size_t> Dictionary::indexOf(std::string_view key) const {
  if (!index_.empty()) {
    auto it = index_.find(std::string(key));
    if (it == index_.end()) return std::nullopt;
    return it->second;
  }
  for (size_t i = 0; i < entries_.size(); ++i)
    if (entries_[i].first == key) return i;
  return std::nullopt;
}

void Dictionary::rebuildIndex() {
  index_.clear();
  if (entries_.size() <= kIndexThreshold) return;
  index_.reserve(entries_.size());
  for (size_t i = 0; i < entries_.size(); ++i) index_.emplace(entries_[i].first, i);
}

const Value* Dictionary::find(std::string_view key) const {
  auto i = indexOf(key);
  return i ? &entries_[*i].second : nullptr;
}

void Dictionary::set(std::string key, Value value) {
  if (auto i = indexOf(key)) {
    entries_[*i].second = std::move(value);
    return;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  if (!index_.empty())
    index_.emplace(entries_.back().first, entries_.size() - 1);
  else if (entries_.size() > kIndexThreshold)
    rebuildIndex();
}

bool Dictionary::remove(std::string_view key) {
  auto i = indexOf(key);
  if (!i) return false;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(*i));
  rebuildIndex();
  return true;
}

void Dictionary::clear() {
  entries_.clear();
  index_.clear();
}

std::vector<std::string> Dictionary::keys() const {
  std::vector<std::string> out;
  out.reserve(entries_.size());
  for (const auto& e : entries_) out.push_back(e.first);
  return out;
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (size() != other.size()) return false;
  for (const auto& e : entries_) {
    const Value* v = other.find(e.first);
    if (!v || !(*v == e.second)) return false;
  }
  return true;
}

std::string Dictionary::description(unsigned indent) const {
  // Foundation prints dictionaries with their keys sorted.
  std::vector<const Entry*> sorted;
  sorted.reserve(entries_.size());
  for (const auto& e : entries_) sorted.push_back(&e);
  std::sort(sorted.begin(), sorted.end(), [](const Entry* a, const Entry* b) { return a->first < b->first; });
  std::string out = "{\n";
  for (const Entry* e : sorted)
    out += indentText(indent + 1) + quoted(e->first) + " = " + nestedDescription(e->second, indent + 1) + ";\n";
  return out + indentText(indent) + "}";
}

}  // namespace platform
