// Unicode text operations on UTF-8 strings, through ICU.
#pragma once

#include <string>

namespace platform {

// Full Unicode lower-casing in the root locale ("Straße" stays "straße",
// "ÉCOLE" becomes "école").  Invalid UTF-8 sequences become U+FFFD.
std::string lowercase(const std::string& text);

// Whether `text` is valid UTF-8.
bool isValidUTF8(const std::string& text);

}  // namespace platform
