// Versioned file names: version N of "name.ext" is stored as "name@N.ext".
//
// The scheme is ambiguous by design: a live file whose own name ends in "@"
// and digits before its extension ("photo@2008.jpg") reads as a version of
// "photo.jpg", and callers treat it as one.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Splits `name` at its last ".": the body before it, and the extension from
// it on (the "." included).  Without a ".", the whole name is the body and
// the extension is empty.
void parseBody_extension(const std::string& name, std::string* body, std::string* extension);

// The name of stored version `version` of `name`: body "@" version extension.
std::string QSVersionName(const std::string& name, uint64_t version);

// The inverse of QSVersionName: [current file name, version digits], or
// nothing when `name` is not a version name.
std::optional<std::array<std::string, 2>> QSParseFileName(const std::string& name);

// The same parse without the lists: sets `currentName` to the current file
// name and `version` to the version number and answers true when `name` is a
// version name whose digits read as a signed 64-bit number (as a stored
// copy's must).  Used for every stored copy a walk examines.
bool QSParseVersionedName(std::string_view name, std::string* currentName, uint64_t* version);
