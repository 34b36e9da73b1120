// The attributes of one file-system item as the file manager reads them
// (never following a symbolic link at the item itself).
//
// Times keep the kernel's nanoseconds.  The creation time is the birth time
// (statx STATX_BTIME) where the file system records one; a stored copy made
// by FileCopier carries its source's creation time in the extended
// attribute "user.com.qsc.creation-date", which readers that ask for it
// prefer, because Linux cannot set a birth time.  HFS creator and type codes
// do not exist here and read as 0.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

struct FileTime {
  int64_t seconds = 0;      // since 1970-01-01 00:00:00 UTC
  uint32_t nanoseconds = 0;

  // Seconds since 2001-01-01 00:00:00 UTC, the unit of the backup records.
  double sinceReferenceDate() const {
    return static_cast<double>(seconds - 978307200) + static_cast<double>(nanoseconds) * 1e-9;
  }
  bool operator==(const FileTime&) const = default;
};

struct FileAttributes {
  enum class Type : uint8_t { Regular, Directory, SymbolicLink, Other };
  enum class CreationSource : uint8_t { None, BirthTime, StoredAttribute };

  Type type = Type::Other;
  uint64_t size = 0;            // logical size (the only fork)
  uint64_t allocatedSize = 0;   // blocks x 512
  uint32_t mode = 0;            // permission bits and file-type bits
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t linkCount = 0;
  uint64_t device = 0;
  uint64_t inode = 0;
  FileTime creationTime;        // see CreationSource
  CreationSource creationSource = CreationSource::None;
  FileTime modificationTime;
  FileTime accessTime;
  FileTime changeTime;          // the inode's change time (moves with any change of data, mode or
                                // attributes); 0 where the file system did not give it
  uint32_t creatorCode = 0;     // HFS codes: always 0 on Linux
  uint32_t typeCode = 0;

  bool operator==(const FileAttributes&) const = default;

  bool isDirectory() const { return type == Type::Directory; }
  bool isRegularFile() const { return type == Type::Regular; }
  bool isSymbolicLink() const { return type == Type::SymbolicLink; }
};

// The extended attribute that carries a copy's source creation time.
inline constexpr const char* kCreationDateAttribute = "com.qsc.creation-date";

}  // namespace platform
