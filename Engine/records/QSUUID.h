// Backup identifiers: time-based UUIDs (RFC 4122 version 1) and their three
// textual forms.
//
//   standard    36 upper-case hexadecimal digits in groups 8-4-4-4-12 joined by "-"
//   underscored the same groups joined by "_"
//   compacted   the 32 digits without separators
#pragma once

#include <array>
#include <cstdint>
#include <string>

using QSUUIDBytes = std::array<uint8_t, 16>;

std::string stringWithUUID(const QSUUIDBytes& uuid);
std::string stringWith_UUID(const QSUUIDBytes& uuid);
std::string stringWithCompactedUUID(const QSUUIDBytes& uuid);

// A new time-based UUID in the standard form.
std::string stringByGeneratingUUID();
std::string GenerateGUID();
std::string Generate_GUID();
std::string GenerateCompactedGUID();

// Fills `uuid` from the standard text.  The bytes are cleared first, so an
// unparsable string leaves all zero bytes; answers whether the text parsed.
bool parseToUUID(const std::string& text, QSUUIDBytes& uuid);
