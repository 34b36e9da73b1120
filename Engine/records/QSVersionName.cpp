#include "Engine/records/QSVersionName.h"

#include <cinttypes>
#include <cstdio>

void parseBody_extension(const std::string& name, std::string* body, std::string* extension) {
  const auto dot = name.rfind('.');
  if (dot == std::string::npos) {
    if (body) *body = name;
    if (extension) extension->clear();
    return;
  }
  if (body) *body = name.substr(0, dot);
  if (extension) *extension = name.substr(dot);
}

std::string QSVersionName(const std::string& name, uint64_t version) {
  std::string body, extension;
  parseBody_extension(name, &body, &extension);
  char number[24];
  std::snprintf(number, sizeof number, "%" PRIu64, version);
  std::string out;
  out.reserve(body.size() + extension.size() + 22);
  out += body;
  out += '@';
  out += number;
  out += extension;
  return out;
}

// A body is a version body when it matches, over its whole length,
// "\A(.){0,}@([0-9])+\z" (case-insensitive, dot matching everything): any
// characters, an "@", one or more ASCII digits, the end.  That holds exactly
// when the text after the body's last "@" is one or more ASCII digits, which
// is tested here directly: names are parsed for every stored file, and no
// regular-expression engine is needed for it.
std::optional<std::array<std::string, 2>> QSParseFileName(const std::string& name) {
  std::string body, extension;
  parseBody_extension(name, &body, &extension);
  const auto at = body.rfind('@');
  if (at == std::string::npos || at + 1 == body.size()) return std::nullopt;
  for (size_t i = at + 1; i < body.size(); ++i)
    if (body[i] < '0' || body[i] > '9') return std::nullopt;
  return std::array<std::string, 2>{body.substr(0, at) + extension, body.substr(at + 1)};
}

bool QSParseVersionedName(std::string_view name, std::string* currentName, uint64_t* version) {
  const auto dot = name.rfind('.');
  const std::string_view body = dot == std::string_view::npos ? name : name.substr(0, dot);
  const std::string_view extension = dot == std::string_view::npos ? std::string_view() : name.substr(dot);
  const auto at = body.rfind('@');
  if (at == std::string_view::npos || at + 1 == body.size()) return false;
  uint64_t number = 0;
  for (size_t i = at + 1; i < body.size(); ++i) {
    const char c = body[i];
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    // Beyond the signed 64-bit range the number does not read.
    if (number > (static_cast<uint64_t>(INT64_MAX) - digit) / 10) return false;
    number = number * 10 + digit;
  }
  currentName->assign(body.substr(0, at));
  currentName->append(extension);
  *version = number;
  return true;
}
