// Copies files, symbolic links and folders with their metadata, safely as root.
//
// What a copy keeps: the data (a reflink clone where the file system can,
// else copy_file_range, else read/write), mode, owner and group, the
// modification and access times to the nanosecond, every extended attribute
// the destination accepts (ACLs included), and the source's creation time
// in the attribute "user.com.qsc.creation-date" (Linux cannot set a birth
// time).  Symbolic links are copied as links, folders recursively.
//
// How it stays safe in folders that users control:
//  - the source is named by a trusted root folder and a path below it; that
//    path is resolved with openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS |
//    RESOLVE_NO_XDEV) and the item is opened with O_NOFOLLOW and checked with
//    fstat (type, device) before a byte is read, so a link or mount a user
//    plants during a backup is refused, never followed;
//  - the destination folder is resolved the same way below its trusted
//    root, whose device can be required to be the backup volume's, so a
//    vanished (lazily unmounted) volume makes the copy fail instead of
//    writing onto the file system under the empty mount point;
//  - the copy is written to a temporary name in the destination folder and
//    renamed to its final name only when its data, attributes and dates are
//    set; on failure the temporary item is removed.  A half-written item
//    never stands under a final name.
//
// Errors carry the failed path and the system's message.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/FileAttributes.h"
#include "platform/FileError.h"

namespace platform {

struct CopyOptions {
  bool setCreationDate = true;       // carry the source's creation time
  bool setModificationDate = true;   // carry the source's modification and access times
  bool deleteDestinationFirst = false;   // replace an existing destination item
  bool deleteDestinationIfError = false; // remove the destination item if the copy fails
  bool syncData = true;              // flush each file's data before it takes its final name
  // When set, a file's data is copied in chunks of kCancelChunkBytes and the
  // flag is read before each: a set flag ends the copy with ECANCELED
  // ("Operation canceled") and removes the temporary item, so a cancelled
  // backup stops within one chunk even in the middle of a large file.
  const std::atomic<bool>* cancelled = nullptr;
  static constexpr size_t kCancelChunkBytes = size_t{8} << 20;
};

class FileCopier {
 public:
  // Copies `sourceRoot`/`sourceRelative` to `destinationRoot`/`destinationRelative`.
  // The roots are trusted and opened as given; the relative paths must not
  // cross symbolic links or mount points.  With `destinationDevice`, the
  // destination root must lie on that device.  Without deleteDestinationFirst
  // an existing destination item makes the copy fail.
  static bool copyBeneath(const std::string& sourceRoot, const std::string& sourceRelative,
                          const std::string& destinationRoot, const std::string& destinationRelative,
                          const CopyOptions& options, FileError* error,
                          std::optional<uint64_t> destinationDevice = std::nullopt);

  // The path-based copy: the source's and the destination's parent folders
  // are the trusted roots.  `setCreationDate` / `setModificationDate` carry
  // the source's dates (without them the copy has the dates it was given
  // when made); with deleteFirst an existing destination is replaced,
  // without it the copy fails; with deleteIfError a failed copy also removes
  // what stands at the destination.
  static bool copyPath_toPath_setCreationDateFromSourcePath_setModifcationDateFromSourcePath_deleteDestinationFileFirst_deleteDestinationFileIfError_error(
      const std::string& source, const std::string& destination, bool setCreationDate, bool setModificationDate,
      bool deleteFirst, bool deleteIfError, FileError* error);

  // Creates the folder `relative` below the trusted `root`; its parent must
  // exist, and no symbolic link or mount point below `root` is crossed.
  // With `like`, the folder takes its owner, group and permission bits;
  // without, it belongs to the caller with mode 0755.  With `rootDevice`,
  // `root` must lie on that device.
  static bool createDirectoryBeneath(const std::string& root, const std::string& relative, const FileAttributes* like,
                                     FileError* error, std::optional<uint64_t> rootDevice = std::nullopt);
  // Removes the item `relative` below the trusted `root` (a folder with
  // everything in it), crossing no link or mount point on the way and
  // removing links rather than following them.  True when nothing remains.
  static bool removeItemBeneath(const std::string& root, const std::string& relative);

  // The copy's two process-wide flags.  When a probe is pending, the next
  // copy reads the system version once and chooses the legacy copy for
  // version 10.5 or earlier; nothing sets the probe in normal operation, so
  // the current copy is used.  The legacy copy (plain read/write, no
  // reflink, no copy_file_range) reports its errors with code 0.
  static void setVersionProbePending(bool pending);
  static bool versionProbePending();
  static void setUseLegacyCopy(bool legacy);
  static bool useLegacyCopy();
};

}  // namespace platform
