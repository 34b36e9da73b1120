// Unicode text operations on UTF-8 strings, through ICU.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// Full Unicode lower-casing in the root locale ("Straße" stays "straße",
// "ÉCOLE" becomes "école").  Text that is not valid UTF-8 keeps its bytes:
// only its ASCII letters are lower-cased.
std::string lowercase(const std::string& text);

// Whether `a` and `b` lower-case (as `lowercase` does) to the same text.
// Two ASCII names are compared in place, without a copy; otherwise the
// lower-cased texts are (lower-casing may change a length, and may turn a
// letter that is not ASCII into one that is: KELVIN SIGN into "k").
bool equalIgnoringCase(std::string_view a, std::string_view b);
// Whether `text` is plain ASCII.
bool isAscii(std::string_view text);

// Whether `text` is valid UTF-8.
bool isValidUTF8(const std::string& text);

}  // namespace platform
