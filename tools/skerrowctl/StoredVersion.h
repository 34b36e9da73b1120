// One stored copy of a file in a backup folder, as skerrowctl lists it.
//
// A plain record: the version number taken from the copy's name
// ("report@3.txt" is version 3), what the copy itself holds (never read
// through a symbolic link), and where it is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/FileAttributes.h"

namespace skerrowctl {

struct StoredVersion {
  uint64_t index = 0;                 // the number after "@"; a higher number is a newer copy
  uint64_t size = 0;                  // bytes of the copy (for a link: the length of its target text)
  uint32_t mode = 0;                  // permission and file-type bits of the copy
  uint32_t uid = 0;                   // owner and group of the copy
  uint32_t gid = 0;
  platform::FileTime modificationTime;
  platform::FileTime accessTime;
  // The source's creation date as the copy stores it; nothing when the copy
  // carries none (the copy's own birth time is when it was made, not the file's).
  std::optional<platform::FileTime> creationTime;
  // When the copy was stored: its own birth time on the backup disk, where
  // the disk's file system records one.
  std::optional<platform::FileTime> storedTime;
  bool isSymbolicLink = false;        // the engine stores a user's link as a link
  std::string fileName;               // the copy's name in its folder: "report@3.txt"
  std::string path;                   // the copy's full path
};

}  // namespace skerrowctl
