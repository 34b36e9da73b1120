#include "platform/UnicodeText.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

namespace platform {

std::string lowercase(const std::string& text) {
  // ASCII-only text (the common case for file names) needs no ICU round trip.
  bool ascii = true;
  for (unsigned char c : text)
    if (c >= 0x80) {
      ascii = false;
      break;
    }
  // Text that is not valid UTF-8 (a Linux file name may hold any bytes) is
  // lower-cased in its ASCII letters only, byte for byte: replacing the
  // invalid bytes would make different names equal.
  if (ascii || !isValidUTF8(text)) {
    std::string out = text;
    for (char& c : out)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
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
