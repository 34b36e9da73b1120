// Hostile property lists for the tests of the readers' limits: arrays
// nested `levels` deep, as XML text or as a binary list (one array object
// per level, each referring to the next, the innermost empty).
#pragma once

#include <cstdint>
#include <string>

namespace skerrow_test {

// "<plist><array>...<array/>...</array></plist>"; `afterName` ends each
// opening tag's name (">" or, hostile, "\n>").
inline std::string deepXmlPropertyList(size_t levels, const std::string& afterName = ">") {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
  text.reserve(text.size() + levels * 16);
  for (size_t i = 0; i < levels; ++i) text += "<array" + afterName;
  for (size_t i = 0; i < levels; ++i) text += "</array>";
  text += "\n</plist>\n";
  return text;
}

// A binary list of `levels` nested arrays; with `cycle`, the innermost array
// refers back to the outermost instead of being empty.
inline std::string deepBinaryPropertyList(size_t levels, bool cycle = false) {
  const uint8_t refSize = 4, offsetSize = 4;
  std::string bytes = "bplist00";
  std::string offsets;
  auto bigEndian = [](std::string& out, uint64_t value, size_t width) {
    for (size_t i = width; i-- > 0;) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
  };
  for (size_t i = 0; i < levels; ++i) {
    bigEndian(offsets, bytes.size(), offsetSize);
    const bool innermost = i + 1 == levels;
    if (innermost && !cycle) {
      bytes.push_back(static_cast<char>(0xA0));  // an empty array
    } else {
      bytes.push_back(static_cast<char>(0xA1));  // an array of one reference
      bigEndian(bytes, innermost ? 0 : i + 1, refSize);
    }
  }
  const uint64_t table = bytes.size();
  bytes += offsets;
  bytes.append(6, '\0');
  bytes.push_back(static_cast<char>(offsetSize));
  bytes.push_back(static_cast<char>(refSize));
  bigEndian(bytes, levels, 8);  // objects
  bigEndian(bytes, 0, 8);       // the top object
  bigEndian(bytes, table, 8);   // the offset table
  return bytes;
}

}  // namespace skerrow_test
