#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

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
// The start of the year 1 reads as the distant past (see paddedXMLDates).
constexpr double kFirstYearOne = -63113904000.0;  // 0001-01-01T00:00:00Z
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
      if (d->timeIntervalSinceReferenceDate() == kFirstYearOne) return Value(Date::distantPast());
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
      // Any XML white space may end the name ("<array\n>" opens an array too).
      return nameRest > n && std::memcmp(name, word, n) == 0 &&
             (name[n] == '>' || name[n] == '/' || name[n] == ' ' || name[n] == '\t' || name[n] == '\n' ||
              name[n] == '\r');
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

// Nesting depth of a binary list's containers (arrays, sets, dictionaries),
// followed through the object references without recursion before libplist
// sees the bytes: libplist's binary reader recurses once per level, so a
// hostile file of a million nested arrays would exhaust its stack.  A
// reference cycle counts as too deep.  Each object is examined once (its
// height is remembered), so shared objects cost nothing extra.  Malformed
// structure is left to libplist, which rejects it.
bool binaryNestingWithinLimit(const uint8_t* b, size_t size) {
  constexpr size_t kHeader = 8, kTrailer = 32;
  if (size < kHeader + kTrailer) return true;
  const uint8_t* trailer = b + size - kTrailer;
  const size_t offsetSize = trailer[6];
  const size_t refSize = trailer[7];
  const uint64_t objects = readBigEndian(trailer + 8, 8);
  const uint64_t top = readBigEndian(trailer + 16, 8);
  const uint64_t table = readBigEndian(trailer + 24, 8);
  if (offsetSize == 0 || offsetSize > 8 || refSize == 0 || refSize > 8 || table > size - kTrailer ||
      objects > (size - kTrailer - table) / offsetSize || top >= objects)
    return true;
  // The references held by object `index` (none for a scalar or a malformed object).
  auto references = [&](uint64_t index, uint64_t* first, uint64_t* count, uint64_t* stride) {
    *count = 0;
    const uint64_t offset = readBigEndian(b + table + index * offsetSize, offsetSize);
    if (offset >= size - kTrailer) return;
    const uint8_t marker = b[offset];
    const uint8_t kind = marker >> 4;
    if (kind != 0xA && kind != 0xC && kind != 0xD) return;  // array, set, dictionary
    uint64_t n = marker & 0x0F;
    uint64_t start = offset + 1;
    if (n == 0x0F) {
      if (start >= size || (b[start] >> 4) != 0x1) return;
      const size_t intSize = size_t{1} << (b[start] & 0x3);
      if (start + 1 + intSize > size) return;
      n = readBigEndian(b + start + 1, intSize);
      start += 1 + intSize;
    }
    if (kind == 0xD) {
      // Keys are strings; only the values, which follow the keys, can nest.
      if (n > (size - start) / refSize / 2) return;
      start += n * refSize;
    } else if (n > (size - start) / refSize) {
      return;
    }
    *first = start;
    *count = n;
    *stride = refSize;
  };
  constexpr uint32_t kUnknown = UINT32_MAX, kOpen = UINT32_MAX - 1;
  std::vector<uint32_t> height(objects, kUnknown);  // levels below and including the object
  struct Frame {
    uint64_t index, next, first, count, stride;
    uint32_t tallest;
  };
  std::vector<Frame> stack;
  auto open = [&](uint64_t index) -> bool {
    if (stack.size() >= PropertyList::kMaxDepth + 1) return false;
    Frame frame{index, 0, 0, 0, 0, 0};
    references(index, &frame.first, &frame.count, &frame.stride);
    height[index] = kOpen;
    stack.push_back(frame);
    return true;
  };
  if (!open(top)) return false;
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next == frame.count) {
      const uint32_t own = frame.count > 0 ? frame.tallest + 1 : 0;
      height[frame.index] = own;
      stack.pop_back();
      if (!stack.empty()) stack.back().tallest = std::max(stack.back().tallest, own);
      continue;
    }
    const uint64_t child = readBigEndian(b + frame.first + frame.next * frame.stride, frame.stride);
    ++frame.next;
    if (child >= objects) continue;  // malformed: libplist refuses it
    if (height[child] == kOpen) return false;  // a cycle
    if (height[child] != kUnknown) {
      if (stack.size() + height[child] > PropertyList::kMaxDepth + 1) return false;
      frame.tallest = std::max(frame.tallest, height[child]);
      continue;
    }
    if (!open(child)) return false;
  }
  return true;
}

// libplist 2.2 writes the year of an XML date without padding ("0-12-30" for
// the distant past, "812-03-01"), which other property-list readers refuse.
// Dates are rewritten with four-digit years; a date before the year 1 (the
// distant past is one) is written as Foundation writes the distant past,
// "0001-01-01T00:00:00Z", and read back as the distant past.
constexpr const char* kDistantPastText = "0001-01-01T00:00:00Z";

std::string paddedXMLDates(const char* xml, size_t length) {
  static constexpr char kOpenTag[] = "<date>";
  static constexpr char kCloseTag[] = "</date>";
  std::string out;
  out.reserve(length + 64);
  size_t at = 0;
  const std::string_view text(xml, length);
  while (true) {
    const size_t open = text.find(kOpenTag, at);
    if (open == std::string_view::npos) break;
    const size_t start = open + sizeof kOpenTag - 1;
    const size_t close = text.find(kCloseTag, start);
    if (close == std::string_view::npos) break;
    out.append(text.substr(at, start - at));
    const std::string_view date = text.substr(start, close - start);
    const size_t dash = date.find('-', 1);  // a negative year starts with '-'
    const bool negative = !date.empty() && date[0] == '-';
    const std::string_view year = date.substr(0, dash);
    if (dash == std::string_view::npos || negative || year == "0") {
      out += kDistantPastText;
    } else {
      out.append(year.size() < 4 ? 4 - year.size() : 0, '0');
      out.append(date);
    }
    at = close;
  }
  out.append(text.substr(at));
  return out;
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

std::optional<Value> PropertyList::fromBytes(const void* data, size_t size) { return fromBytes(data, size, nullptr); }

std::optional<Value> PropertyList::fromBytes(const void* data, size_t size, std::string* why) {
  const auto refuse = [why](const char* reason) -> std::optional<Value> {
    if (why) *why = reason;
    return std::nullopt;
  };
  if (!data || size == 0) return refuse("is empty");
  if (size > kMaxFileSize) return refuse("is larger than a property list may be (256 MiB)");
  const char* bytes = static_cast<const char*>(data);
  plist_t root = nullptr;
  if (plist_is_binary(bytes, static_cast<uint32_t>(size))) {
    if (!binaryStringsFreeOfNul(reinterpret_cast<const uint8_t*>(bytes), size))
      return refuse("holds a string with a NUL character");
    if (!binaryNestingWithinLimit(reinterpret_cast<const uint8_t*>(bytes), size))
      return refuse("nests arrays or dictionaries deeper than 256 levels");
    plist_from_bin(bytes, static_cast<uint32_t>(size), &root);
  } else {
    if (!xmlNestingWithinLimit(bytes, size)) return refuse("nests arrays or dictionaries deeper than 256 levels");
    // libplist forgives a missing end; a list cut short (a torn write, a
    // truncated copy) is refused rather than read as whatever it still holds.
    const std::string_view text(bytes, size);
    const size_t last = text.find_last_not_of(" \t\r\n");
    if (last == std::string_view::npos || text.substr(0, last + 1).ends_with("</plist>") == false)
      return refuse("is cut short (it does not end with </plist>)");
    // The XML parser relies on a terminating NUL beyond the given length.
    const std::string terminated(bytes, size);
    plist_from_xml(terminated.c_str(), static_cast<uint32_t>(terminated.size()), &root);
  }
  PlistPtr owner(root);
  if (!root) return refuse("is not a property list");
  auto value = fromNode(root, 0);
  if (!value) return refuse("holds values a property list may not");
  return value;
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
  if (format == Format::XML) return paddedXMLDates(out, length);
  return std::string(out, length);
}

std::optional<Value> PropertyList::readFile(const std::string& path) { return readFile(path, nullptr); }

std::optional<Value> PropertyList::readFile(const std::string& path, std::string* why) {
  auto bytes = AtomicFile::read(path, kMaxFileSize + 1);
  if (!bytes) {
    if (why) *why = std::string("could not be opened (") + std::strerror(errno) + ")";
    return std::nullopt;
  }
  return fromBytes(bytes->data(), bytes->size(), why);
}

bool PropertyList::writeFile(const std::string& path, const Value& value, Format format) {
  auto bytes = toBytes(value, format);
  if (!bytes) return false;
  return AtomicFile::write(path, *bytes);
}

}  // namespace platform
