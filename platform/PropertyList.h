// Reading and writing property lists (XML and binary) through libplist.
//
// Readers never throw and never crash on bad input: corrupt, truncated or
// hostile bytes read as nothing.  Limits keep hostile input from exhausting
// the process: nesting deeper than kMaxDepth and files larger than
// kMaxFileSize read as nothing.
//
// Known limits of the file formats as libplist 2.2 writes them:
//  - integers are stored as 64-bit; an unsigned value above INT64_MAX reads
//    back as the signed value with the same bits;
//  - XML dates keep whole seconds; binary dates keep the full value;
//  - dates are kept within the years 0000 to 9999.
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

namespace platform {

class PropertyList {
 public:
  enum class Format { XML, Binary };

  static constexpr unsigned kMaxDepth = 256;
  static constexpr size_t kMaxFileSize = 256u * 1024u * 1024u;

  // Parses XML or binary bytes (detected by their header).
  static std::optional<Value> fromBytes(const void* data, size_t size);
  // The same; when nothing is read, `why` says why, in words that follow a
  // file's name ("nests arrays or dictionaries deeper than 256 levels").
  static std::optional<Value> fromBytes(const void* data, size_t size, std::string* why);
  static std::optional<Value> fromBytes(const std::string& bytes) { return fromBytes(bytes.data(), bytes.size()); }

  // Serialises a value; nothing only if libplist fails.
  static std::optional<std::string> toBytes(const Value& value, Format format);

  // Reads a file; nothing when missing, unreadable or not a property list.
  static std::optional<Value> readFile(const std::string& path);
  static std::optional<Value> readFile(const std::string& path, std::string* why);

  // Writes a file atomically (see AtomicFile); answers whether it worked.
  static bool writeFile(const std::string& path, const Value& value, Format format = Format::XML);
};

}  // namespace platform
