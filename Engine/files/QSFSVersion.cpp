#include "Engine/files/QSFSVersion.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "Engine/records/QSVersionName.h"

std::shared_ptr<QSFSVersion> QSFSVersion::versionWithFileName_attributes(const std::string& fileName,
                                                                         const QSFSFileAttributes& attributes) {
  const auto parsed = QSParseFileName(fileName);
  if (!parsed) return nullptr;
  // A decimal scan as a signed 64-bit number: digits beyond its range do not read.
  const std::string& digits = (*parsed)[1];
  errno = 0;
  char* end = nullptr;
  const long long number = std::strtoll(digits.c_str(), &end, 10);
  if (end == digits.c_str() || errno == ERANGE || number < 0) return nullptr;
  return std::make_shared<QSFSVersion>(fileName, attributes, static_cast<uint64_t>(number));
}

std::string QSFSVersion::description() const {
  char buf[64];
  std::snprintf(buf, sizeof buf, "<QSFSVersion: %p>", static_cast<const void*>(this));
  return buf;
}

int compareVersions(const QSFSVersion& a, const QSFSVersion& b, void*) {
  if (a.index() > b.index()) return kQSOrderedAscending;
  if (a.index() < b.index()) return kQSOrderedDescending;
  return kQSOrderedSame;
}

QSFSVersionList QSSortedVersions(const QSFSVersionArray& versions) {
  QSFSVersionArray sorted = versions;
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
    return compareVersions(*a, *b, nullptr) == kQSOrderedAscending;
  });
  return std::make_shared<const QSFSVersionArray>(std::move(sorted));
}
