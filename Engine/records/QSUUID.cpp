#include "Engine/records/QSUUID.h"

#include "platform/Uuid.h"

namespace {

std::string hexGroups(const QSUUIDBytes& uuid, const char* separator) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (size_t i = 0; i < uuid.size(); ++i) {
    if (separator && (i == 4 || i == 6 || i == 8 || i == 10)) out += separator;
    out += hex[uuid[i] >> 4];
    out += hex[uuid[i] & 15];
  }
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

QSUUIDBytes newUUID() { return platform::generateTimeBasedUuid(); }

}  // namespace

std::string stringWithUUID(const QSUUIDBytes& uuid) { return hexGroups(uuid, "-"); }
std::string stringWith_UUID(const QSUUIDBytes& uuid) { return hexGroups(uuid, "_"); }
std::string stringWithCompactedUUID(const QSUUIDBytes& uuid) { return hexGroups(uuid, nullptr); }

std::string stringByGeneratingUUID() { return stringWithUUID(newUUID()); }
std::string GenerateGUID() { return stringWithUUID(newUUID()); }
std::string Generate_GUID() { return stringWith_UUID(newUUID()); }
std::string GenerateCompactedGUID() { return stringWithCompactedUUID(newUUID()); }

bool parseToUUID(const std::string& text, QSUUIDBytes& uuid) {
  uuid.fill(0);
  if (text.size() != 36) return false;
  QSUUIDBytes parsed{};
  size_t byte = 0;
  for (size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return false;
      ++i;
      continue;
    }
    const int hi = hexValue(text[i]);
    const int lo = hexValue(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    parsed[byte++] = static_cast<uint8_t>(hi << 4 | lo);
    i += 2;
  }
  uuid = parsed;
  return true;
}
