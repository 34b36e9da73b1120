// QSParseFileName on arbitrary bytes: it must never crash, must agree with
// the regular expression the version-name rule is written as, and what it
// answers must put the name back together.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Engine/records/QSVersionName.h"
#include "platform/RegexPredicate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto expression =
      platform::RegexPredicate::selfMatchesCaseInsensitive("(?s)\\A(.){0,}@([0-9])+\\z");
  const std::string name(reinterpret_cast<const char*>(data), size);
  const auto parsed = QSParseFileName(name);

  std::string body, extension;
  parseBody_extension(name, &body, &extension);
  if (body + extension != name) __builtin_trap();
  if (parsed.has_value() != expression->evaluateWithObject(body)) __builtin_trap();
  if (parsed) {
    const std::string& current = (*parsed)[0];
    const std::string& digits = (*parsed)[1];
    if (digits.empty()) __builtin_trap();
    for (char c : digits)
      if (c < '0' || c > '9') __builtin_trap();
    // The current name is the body before the last "@" plus the extension.
    if (current.size() + 1 + digits.size() != name.size()) __builtin_trap();
    if (name.compare(0, current.size() - extension.size(), current, 0, current.size() - extension.size()) != 0)
      __builtin_trap();
  }
  return 0;
}
