#include "platform/UnicodeText.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

namespace platform {

bool isAscii(std::string_view text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

namespace {

char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  if (isAscii(a) && isAscii(b)) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
      if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    return true;
  }
  return lowercase(std::string(a)) == lowercase(std::string(b));
}

std::string lowercase(const std::string& text) {
  // ASCII-only text (the common case for file names) needs no ICU round trip.
  const bool ascii = isAscii(text);
  // Text that is not valid UTF-8 (a Linux file name may hold any bytes) is
  // lower-cased in its ASCII letters only, byte for byte: replacing the
  // invalid bytes would make different names equal.
  if (ascii || !isValidUTF8(text)) {
    std::string out = text;
    for (char& c : out) c = asciiLower(c);
    return out;
  }
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(text);
  u.toLower(icu::Locale::getRoot());
  std::string out;
  u.toUTF8String(out);
  return out;
}

bool isValidUTF8(const std::string& text) {
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  const int32_t length = static_cast<int32_t>(text.size());
  int32_t i = 0;
  while (i < length) {
    UChar32 c;
    U8_NEXT(s, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

}  // namespace platform
