// One stored copy of a file in a backup folder: its versioned file name
// ("report@3.txt"), the version number taken from that name (a higher
// number is a newer copy) and the copy's attributes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Engine/files/QSFSFileAttributes.h"

class QSFSVersion {
 public:
  QSFSVersion(std::string fileName, const QSFSFileAttributes& attributes, uint64_t index)
      : fileName_(std::move(fileName)), index_(index), attributes_(attributes) {}

  static std::shared_ptr<QSFSVersion> initWithFileName_attributes_index(std::string fileName,
                                                                        const QSFSFileAttributes& attributes,
                                                                        uint64_t index) {
    return std::make_shared<QSFSVersion>(std::move(fileName), attributes, index);
  }
  // The version a stored name stands for; nothing when the name is not a
  // versioned name or its number is negative or unreadable.
  static std::shared_ptr<QSFSVersion> versionWithFileName_attributes(const std::string& fileName,
                                                                     const QSFSFileAttributes& attributes);

  const std::string& fileName() const { return fileName_; }
  uint64_t index() const { return index_; }
  const QSFSFileAttributes& attributes() const { return attributes_; }

  // "<QSFSVersion: 0x...>", as the object prints in logs.
  std::string description() const;

 private:
  std::string fileName_;
  uint64_t index_;
  QSFSFileAttributes attributes_;
};

using QSFSVersionArray = std::vector<std::shared_ptr<QSFSVersion>>;
// Version lists are shared, never changed once made (deep copies of a tree share them).
using QSFSVersionList = std::shared_ptr<const QSFSVersionArray>;

// Ordering results, as sort functions answer them.
inline constexpr int kQSOrderedAscending = -1;
inline constexpr int kQSOrderedSame = 0;
inline constexpr int kQSOrderedDescending = 1;

// Newest first: the version with the greater index sorts earlier
// (ascending); the context is ignored.
int compareVersions(const QSFSVersion& a, const QSFSVersion& b, void* context);

// A copy of `versions` sorted with compareVersions.
QSFSVersionList QSSortedVersions(const QSFSVersionArray& versions);
