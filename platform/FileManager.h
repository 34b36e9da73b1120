// File operations of the engine on Linux: existence and attribute tests
// that never follow a final symbolic link unless asked to, extended
// attribute names, sizes, folder creation, recursive removal that never
// follows links, free space, and path resolution.
//
// All operations are stateless and safe from any thread.  They report
// failure by their result (false, nothing, 0) and, where a FileError is
// given, its details; none raises.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileAttributes.h"
#include "platform/FileError.h"

namespace platform {

class FileManager {
 public:
  // Attributes of the item at `path` (not followed if it is a link).
  static bool attributesAtPath(const std::string& path, FileAttributes* attributes,
                               bool preferStoredCreationDate = false);

  // Creates the folder and any missing parents (mode 0755); true when it
  // exists as a folder afterwards.
  static bool insureDirectoryAtPath(const std::string& path);
  // Creates one folder (and its parents with `intermediates`) with `mode`.
  static bool createDirectoryAtPath(const std::string& path, bool intermediates, uint32_t mode, FileError* error);
  // Whether the item exists as a folder, not following a final link.  The error is cleared.
  static bool isDirectoryAtPath_error(const std::string& path, FileError* error);
  // Existence; `isDirectory` is set when it exists (false otherwise).
  static bool fileExistsAtPath_isDirectory_traverseLink(const std::string& path, bool* isDirectory, bool traverseLink);
  static bool fileExistsAtPath_traverseLink(const std::string& path, bool traverseLink);
  // lstat-based flags and the creation and modification dates (seconds
  // since 2001); on failure every given output is cleared.
  static bool getFileAttributesAtPath_isDirectory_isRegularFile_isSymbolicLink_creationDateSecondsSinceReferenceDate_modificationDateSecondsSinceReferenceDate(
      const std::string& path, bool* isDirectory, bool* isRegularFile, bool* isSymbolicLink, double* creationDate,
      double* modificationDate);
  // The names of the item's extended attributes as Linux lists them
  // ("user.xyz", "system.posix_acl_access", ...); nothing when there are none.
  static std::optional<std::vector<std::string>> extendedAttributesForPath_traverseLink(const std::string& path,
                                                                                        bool traverseLink);
  // A file's full size: its only fork's size; 0 for a folder or a failure.
  // `physicalSize` receives the allocated size.
  static uint64_t fullFileSizeForPath_physicalSize_traverseLink(const std::string& path, uint64_t* physicalSize,
                                                                bool traverseLink);

  // Removes the item, a folder with everything in it; links are removed,
  // never followed.  True when nothing remains at the path.
  // Renames `from` to `to` on the same file system (rename(2)); an existing `to` is replaced.
  static bool moveItemAtPath_toPath(const std::string& from, const std::string& to);
  static bool removeItemAtPath(const std::string& path, FileError* error = nullptr);
  // Removes `name` relative to the folder `dirfd` in the same way.
  static bool removeItemAt(int dirfd, const std::string& name);

  // Sets the access and/or modification time (nanoseconds kept) of the item,
  // of the link itself unless `followLink`.
  static bool setTimes(const std::string& path, const FileTime* access, const FileTime* modification, bool followLink);
  // Owner and group (of the link itself unless `followLink`).
  static bool setOwner(const std::string& path, uint32_t uid, uint32_t gid, bool followLink);
  // Permission bits (links have none: a link is followed).
  static bool setPermissions(const std::string& path, uint32_t mode);

  // What a folder's file system keeps of a copy's metadata, found by trying
  // it on a scratch file: the coarseness of its modification times (1 for
  // nanoseconds, 10,000,000 for exFAT's 10 ms, 2,000,000,000 for FAT's 2 s)
  // and whether it keeps user extended attributes (and so the stored
  // creation date).  Nothing when the folder cannot be written.
  struct VolumeTraits {
    uint64_t timeGranularityNanoseconds = 1;
    bool keepsUserAttributes = true;
  };
  static std::optional<VolumeTraits> probeVolumeTraits(const std::string& folder);

  // Free bytes for unprivileged writers on the file system holding `path`.
  static std::optional<uint64_t> freeSpaceAtPath(const std::string& path);
  // Flushes everything written to the file system holding `path` (syncfs).
  static bool synchronizeFileSystemAtPath(const std::string& path);
  // `path` with every symbolic link resolved; nothing when it cannot be resolved.
  static std::optional<std::string> resolvingSymlinksInPath(const std::string& path);
};

}  // namespace platform
