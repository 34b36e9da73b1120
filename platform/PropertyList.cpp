#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/AtomicFile.h"

namespace platform {
namespace {

struct PlistDeleter {
  void operator()(void* node) const {
    if (node) plist_free(static_cast<plist_t>(node));
  }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct MallocDeleter {
  void operator()(void* p) const { std::free(p); }
};

// libplist 2.2 takes and gives dates as 32-bit seconds since 2001 plus
// microseconds, which cannot hold the distant past or dates after 2069, and
// answers dates between -1 and 0 with the wrong sign.  It keeps an exact
// double internally and its binary format stores that double, so dates the
// 32-bit calls cannot carry travel through a one-object binary property list
// made or read here.  A written date keeps microseconds (or the exact value
// beyond the 32-bit range); a read date is exact.
constexpr double kMinDate = -63145526400.0;  // 0000-01-01T00:00:00Z
constexpr double kMaxDate = 252423993599.0;  // 9999-12-31T23:59:59Z
constexpr uint8_t kBinaryDateMarker = 0x33;

uint64_t readBigEndian(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
  return v;
}

// A date node holding exactly `seconds`: a binary property list whose only
// object is the date.
plist_t newExactDateNode(double seconds) {
  uint8_t b[50] = {'b', 'p', 'l', 'i', 's', 't', '0', '0', kBinaryDateMarker};
  uint64_t bits;
  std::memcpy(&bits, &seconds, sizeof bits);
  for (int i = 0; i < 8; ++i) b[9 + i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
  b[17] = 8;       // offset table: the date object starts at byte 8
  b[18 + 6] = 1;   // trailer: offset size
  b[18 + 7] = 1;   // object reference size
  b[18 + 15] = 1;  // one object; the top object is object 0
  b[18 + 31] = 17; // the offset table starts at byte 17
  plist_t node = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(b), sizeof b, &node);
  return node;
}

// The exact seconds of a date node, read from its binary form.
std::optional<double> exactDateSeconds(plist_t node) {
  plist_t array = plist_new_array();
  plist_array_append_item(array, plist_copy(node));
  char* out = nullptr;
  uint32_t length = 0;
  plist_to_bin(array, &out, &length);
  plist_free(array);
  std::unique_ptr<char, MallocDeleter> owner(out);
  if (!out || length < 8 + 32) return std::nullopt;
  const auto* b = reinterpret_cast<const uint8_t*>(out);
  const uint8_t* trailer = b + length - 32;
  const size_t offsetSize = trailer[6];
  const uint64_t objects = readBigEndian(trailer + 8, 8);
  const uint64_t table = readBigEndian(trailer + 24, 8);
  if (offsetSize == 0 || offsetSize > 8 || table + objects * offsetSize > length - 32) return std::nullopt;
  for (uint64_t i = 0; i < objects; ++i) {
    const uint64_t offset = readBigEndian(b + table + i * offsetSize, offsetSize);
    if (offset + 9 > length || b[offset] != kBinaryDateMarker) continue;
    const uint64_t bits = readBigEndian(b + offset + 1, 8);
    double seconds;
    std::memcpy(&seconds, &bits, sizeof seconds);
    return seconds;
  }
  return std::nullopt;
}

plist_t newDateNode(Date date) {
  double s = date.timeIntervalSinceReferenceDate();
  if (std::isnan(s)) s = Date::distantPast().timeIntervalSinceReferenceDate();
  s = std::fmax(kMinDate, std::fmin(kMaxDate, s));
  if (s > static_cast<double>(INT32_MIN) && s < static_cast<double>(INT32_MAX)) {
    // Whole seconds toward zero and a signed fraction: libplist adds them up.
    const double whole = std::trunc(s);
    auto sec = static_cast<int32_t>(whole);
    auto usec = static_cast<int32_t>(std::lround((s - whole) * 1e6));
    if (usec >= 1000000 || usec <= -1000000) return newExactDateNode(s);
    return plist_new_date(sec, usec);
  }
  return newExactDateNode(s);
}

// The getter of libplist 2.2 truncates to 32-bit seconds (converting out of
// range values without a check) and loses the sign of dates between -1 and 0,
// so dates are always read exactly, from their binary form.
std::optional<Date> readDateNode(plist_t node) {
  auto exact = exactDateSeconds(node);
  if (!exact) return std::nullopt;
  return Date(*exact);
}

plist_t toNode(const Value& value) {
  switch (value.type()) {
    case Value::Type::String: return plist_new_string(value.asString()->c_str());
    case Value::Type::Integer: return plist_new_uint(static_cast<uint64_t>(value.int64Value()));
    case Value::Type::Real: return plist_new_real(value.doubleValue());
    case Value::Type::Boolean: return plist_new_bool(value.boolValue() ? 1 : 0);
    case Value::Type::Date: return newDateNode(*value.asDate());
    case Value::Type::Data: {
      const Bytes& b = *value.asData();
      // libplist copies with memcpy, which must not be given a null pointer even for no bytes.
      return plist_new_data(b.empty() ? "" : reinterpret_cast<const char*>(b.data()), b.size());
    }
    case Value::Type::Array: {
      plist_t node = plist_new_array();
      for (const Value& item : *value.asArray()) {
        plist_t child = toNode(item);
        if (!child) {
          plist_free(node);
          return nullptr;
        }
        plist_array_append_item(node, child);
      }
      return node;
    }
    case Value::Type::Dictionary: {
      plist_t node = plist_new_dict();
      for (const auto& [key, item] : *value.asDictionary()) {
        plist_t child = toNode(item);
        if (!child) {
          plist_free(node);
          return nullptr;
        }
        plist_dict_set_item(node, key.c_str(), child);
      }
      return node;
    }
  }
  return nullptr;
}

std::optional<Value> fromNode(plist_t node, unsigned depth) {
  if (!node || depth > PropertyList::kMaxDepth) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value::boolean(b != 0);
    }
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return Value::integer(static_cast<int64_t>(v));
    }
    case PLIST_UID: {
      uint64_t v = 0;
      plist_get_uid_val(node, &v);
      return Value::integer(static_cast<int64_t>(v));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value::real(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      if (!s) return std::nullopt;
      return Value(std::string(s, static_cast<size_t>(length)));
    }
    case PLIST_DATE: {
      auto d = readDateNode(node);
      if (!d) return std::nullopt;
      return Value(*d);
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      if (!p && length != 0) return std::nullopt;
      const auto* u = reinterpret_cast<const uint8_t*>(p);
      return Value::data(Bytes(u, u + length));
    }
    case PLIST_ARRAY: {
      Array out;
      const uint32_t n = plist_array_get_size(node);
      out.reserve(n);
      for (uint32_t i = 0; i < n; ++i) {
        auto item = fromNode(plist_array_get_item(node, i), depth + 1);
        if (!item) return std::nullopt;
        out.push_back(std::move(*item));
      }
      return Value(std::move(out));
    }
    case PLIST_DICT: {
      Dictionary out;
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      std::unique_ptr<void, MallocDeleter> iterOwner(iter);
      while (true) {
        char* key = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, iter, &key, &child);
        std::unique_ptr<char, MallocDeleter> keyOwner(key);
        if (!child) break;
        if (!key) return std::nullopt;
        auto item = fromNode(child, depth + 1);
        if (!item) return std::nullopt;
        out.set(key, std::move(*item));
      }
      return Value(std::move(out));
    }
    default: return std::nullopt;
  }
}

// Nesting depth of XML containers, counted on the raw text before libplist
// sees it, so that hostile nesting cannot exhaust the parser's stack.
bool xmlNestingWithinLimit(const char* data, size_t size) {
  long depth = 0;
  for (size_t i = 0; i + 1 < size; ++i) {
    if (data[i] != '<') continue;
    const char* p = data + i + 1;
    const size_t rest = size - i - 1;
    const bool closing = rest > 0 && *p == '/';
    const char* name = closing ? p + 1 : p;
    const size_t nameRest = closing ? rest - 1 : rest;
    auto is = [&](const char* word) {
      const size_t n = std::strlen(word);
      return nameRest > n && std::memcmp(name, word, n) == 0 && (name[n] == '>' || name[n] == ' ' || name[n] == '/');
    };
    if (!is("array") && !is("dict")) continue;
    // A self-closing element ("<array/>") opens nothing.
    const void* gt = std::memchr(name, '>', nameRest);
    const bool selfClosing = gt && static_cast<const char*>(gt) > name && static_cast<const char*>(gt)[-1] == '/';
    if (closing)
      --depth;
    else if (!selfClosing)
      ++depth;
    if (depth > static_cast<long>(PropertyList::kMaxDepth)) return false;
  }
  return true;
}

// libplist 2.2 aborts (an assertion) when it reads back a dictionary key
// converted from a UTF-16 string that holds U+0000.  Such strings have no
// place in the system's lists, so a binary list holding one is refused
// before libplist parses it.  Answers false for such a list; malformed
// structure is left to libplist, which rejects it.
bool binaryStringsFreeOfNul(const uint8_t* b, size_t size) {
  constexpr size_t kHeader = 8, kTrailer = 32;
  if (size < kHeader + kTrailer) return true;
  const uint8_t* trailer = b + size - kTrailer;
  const size_t offsetSize = trailer[6];
  const uint64_t objects = readBigEndian(trailer + 8, 8);
  const uint64_t table = readBigEndian(trailer + 24, 8);
  if (offsetSize == 0 || offsetSize > 8 || table > size - kTrailer ||
      objects > (size - kTrailer - table) / offsetSize)
    return true;
  for (uint64_t i = 0; i < objects; ++i) {
    const uint64_t offset = readBigEndian(b + table + i * offsetSize, offsetSize);
    if (offset >= size) continue;
    const uint8_t marker = b[offset];
    if ((marker >> 4) != 0x6) continue;  // UTF-16 string
    uint64_t count = marker & 0x0F;
    uint64_t start = offset + 1;
    if (count == 0x0F) {
      if (start >= size || (b[start] >> 4) != 0x1) continue;
      const size_t intSize = size_t{1} << (b[start] & 0x3);
      if (start + 1 + intSize > size) continue;
      count = readBigEndian(b + start + 1, intSize);
      start += 1 + intSize;
    }
    if (start > size || count > (size - start) / 2) continue;
    for (uint64_t j = 0; j < count; ++j)
      if (b[start + 2 * j] == 0 && b[start + 2 * j + 1] == 0) return false;
  }
  return true;
}

}  // namespace

std::optional<Value> PropertyList::fromBytes(const void* data, size_t size) {
  if (!data || size == 0 || size > kMaxFileSize) return std::nullopt;
  const char* bytes = static_cast<const char*>(data);
  plist_t root = nullptr;
  if (plist_is_binary(bytes, static_cast<uint32_t>(size))) {
    if (!binaryStringsFreeOfNul(reinterpret_cast<const uint8_t*>(bytes), size)) return std::nullopt;
    plist_from_bin(bytes, static_cast<uint32_t>(size), &root);
  } else {
    if (!xmlNestingWithinLimit(bytes, size)) return std::nullopt;
    // The XML parser relies on a terminating NUL beyond the given length.
    const std::string text(bytes, size);
    plist_from_xml(text.c_str(), static_cast<uint32_t>(text.size()), &root);
  }
  PlistPtr owner(root);
  if (!root) return std::nullopt;
  return fromNode(root, 0);
}

std::optional<std::string> PropertyList::toBytes(const Value& value, Format format) {
  PlistPtr root(toNode(value));
  if (!root) return std::nullopt;
  char* out = nullptr;
  uint32_t length = 0;
  if (format == Format::XML)
    plist_to_xml(static_cast<plist_t>(root.get()), &out, &length);
  else
    plist_to_bin(static_cast<plist_t>(root.get()), &out, &length);
  std::unique_ptr<char, MallocDeleter> owner(out);
  if (!out) return std::nullopt;
  return std::string(out, length);
}

std::optional<Value> PropertyList::readFile(const std::string& path) {
  auto bytes = AtomicFile::read(path, kMaxFileSize);
  if (!bytes) return std::nullopt;
  return fromBytes(*bytes);
}

bool PropertyList::writeFile(const std::string& path, const Value& value, Format format) {
  auto bytes = toBytes(value, format);
  if (!bytes) return false;
  return AtomicFile::write(path, *bytes);
}

}  // namespace platform
