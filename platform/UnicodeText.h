// Unicode text operations on UTF-8 strings, through ICU.
#pragma once

#include <string>

namespace platform {

// Full Unicode lower-casing in the root locale ("Straße" stays "straße",
// "ÉCOLE" becomes "école").  Text that is not valid UTF-8 keeps its bytes:
// only its ASCII letters are lower-cased.
std::string lowercase(const std::string& text);

// Whether `text` is valid UTF-8.
bool isValidUTF8(const std::string& text);

}  // namespace platform
