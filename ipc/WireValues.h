// Property-list values on the bus: a dictionary is a{sv}, and each value a
// variant of s (string), x (integer; t for unsigned), d (real), b
// (boolean), ay (data), av (array), a{sv} (dictionary) or (d) (a date:
// seconds since 2001-01-01).  Values sent by other programs in other
// integer or string-like types (y, n, q, i, u, o, g) are read as integers
// and strings; anything else is refused with
// org.freedesktop.DBus.Error.InvalidArgs, as is nesting deeper than the
// property-list reader accepts.
#pragma once

#include <map>
#include <string>

#include <sdbus-c++/Types.h>

#include "platform/Value.h"

namespace wire {

sdbus::Variant toVariant(const platform::Value& value);
platform::Value fromVariant(const sdbus::Variant& variant);

std::map<std::string, sdbus::Variant> toWireDictionary(const platform::Dictionary& dictionary);
platform::Dictionary fromWireDictionary(const std::map<std::string, sdbus::Variant>& dictionary);

}  // namespace wire
