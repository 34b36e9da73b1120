// Path strings, the way the engine joins and splits them.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// `folder` and `name` joined by exactly one "/" (slashes where they meet are
// merged); either may be empty, and then the other is the result.
std::string appendingPathComponent(std::string_view folder, std::string_view name);
// The part after the last "/" (trailing slashes ignored); "/" for "/".
std::string lastPathComponent(std::string_view path);
// The same without a copy: a view into `path` (or of "/").
std::string_view lastPathComponentView(std::string_view path);
// Everything before the last component, without a trailing slash ("/" for
// a component directly below the root, "" for a bare name).
std::string deletingLastPathComponent(std::string_view path);
// Whether `path` is `folder` itself or lies below it: "/home/ann" does not
// take in "/home/anna"; a folder given with a trailing slash ("/") takes in
// everything that starts with it.  Nothing is at or below "".
bool isAtOrBelow(std::string_view path, std::string_view folder);

}  // namespace platform
