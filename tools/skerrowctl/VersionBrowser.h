// Lists and restores the stored versions of one file of a user's home
// folder, read from one backup folder.
//
// Layout.  A backup folder is "<mount point>/qs skerrow.skstor/<backup
// uid>/"; below it the home folder is mirrored by relative path, and each
// copy of "name.ext" is stored in the mirrored folder as "name@N.ext"
// (QSVersionName).  "~/Documents/report.txt" has its copies in
// "<backup folder>/Documents/", named "report@0.txt", "report@1.txt", ...
//
// Version numbers.  The engine stores the first copy of a file as version
// 0 and each later copy as one more than the highest number stored for it,
// so a higher number is always a newer copy and the newest copy has the
// highest number.  Pruning to the version depth deletes the lowest numbers,
// so the numbers that remain need not start at 0 ("report@2.txt" to
// "report@4.txt"), and a number is not reused while a copy above it
// remains.  Version 0 is thus the oldest copy ever made, not the current
// one.  Numbers too large for a signed 64-bit integer do not name versions,
// as the engine reads them (QSFSVersion).
//
// Names.  In its folder, a copy belongs to a file when the name it parses
// to (QSParseFileName) is the file's name ignoring letter case, as the
// engine groups copies when it walks a backup folder.  The scheme is
// ambiguous: the engine stores a live file named "photo@2008.jpg" as
// "photo@2008@0.jpg", ... and those copies are found as versions of
// "photo@2008.jpg"; but a copy whose own name is "photo@2008.jpg" parses as
// version 2008 of "photo.jpg" and is listed there, as the engine reads it.
// A typed path always names the live file, never a copy.
//
// Links.  Nothing in the backup folder is followed: folders are opened with
// O_NOFOLLOW one component at a time (a folder replaced by a link holds no
// versions), copies are examined without following them, and a copy that
// is a symbolic link (the engine stores a user's link as a link) is listed
// as a link and restored as the same link, never read through.
//
// Errors are answered, never raised: functions answer nothing (or an empty
// list) and fill the VersionError they are given.  Calls are independent
// and keep no state beyond the two folder paths.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/skerrowctl/HomeRelativePath.h"
#include "tools/skerrowctl/StoredVersion.h"
#include "tools/skerrowctl/VersionError.h"

namespace skerrowctl {

// What to restore, and where.
struct RestoreOptions {
  // The version number to restore; nothing for the newest copy.
  std::optional<uint64_t> version;
  // Where to put it; nothing for the file's own path in the home folder.
  // An existing folder (or a link to one) receives the file under the
  // name it has in the home folder (without "@N"); any other path is the
  // restored file's own path (a relative one is taken from the current
  // folder).
  std::optional<std::string> destination;
  // Whether an existing file (or link) at the destination is replaced.  A
  // folder is never replaced.
  bool overwrite = false;
};

// What a restore wrote.
struct RestoredVersion {
  StoredVersion version;        // the copy that was restored
  std::string destinationPath;  // the path it now has
};

class VersionBrowser {
 public:
  // Browses the backup folder `backupFolder` of the user whose home folder
  // is `home` (an absolute path).  Nothing is opened until a call is made.
  VersionBrowser(std::string backupFolder, std::string home);

  // The backup folder of backup `backupUID` on the disk mounted at
  // `mountPoint`: "<mountPoint>/qs skerrow.skstor/<backupUID>".
  static std::string backupFolderPath(const std::string& mountPoint, const std::string& backupUID);

  const std::string& backupFolder() const { return backupFolder_; }
  const std::string& home() const { return home_; }

  // The file the user means by `path` (absolute inside the home folder, or
  // relative to it), as HomeRelativePath::resolve answers it for this home.
  std::optional<HomeRelativePath> resolve(const std::string& path, VersionError* error = nullptr) const;

  // The stored versions of the file at `path` (see resolve), sorted by
  // version number, lowest first (copies with the same number by name).
  // Each gives the copy's number, size, mode, times, stored creation date
  // (if any) and full path.  Empty when the path is refused (InvalidPath),
  // when the backup folder itself cannot be read (IOError), or when no copy
  // is stored (NoStoredVersions, with a message naming the file and the
  // backup folder); `error` is cleared when versions are found.
  std::vector<StoredVersion> versions(const std::string& path, VersionError* error = nullptr) const;
  // The same for a file already resolved.
  std::vector<StoredVersion> versionsOf(const HomeRelativePath& file, VersionError* error = nullptr) const;

  // Copies one stored version of the file at `path` back (see
  // RestoreOptions).  The copy keeps the stored copy's data, mode, access
  // and modification times to the nanosecond, extended attributes (the
  // stored creation date among them, since Linux cannot set a birth time)
  // and, when the caller may set it (root), its owner and group.  It is
  // written under a temporary name in the destination folder and renamed
  // into place only when complete, so a failure leaves no partial file and
  // an existing file is either kept whole or replaced whole.  Without
  // `overwrite` an existing item makes the restore fail, also when it
  // appears while the copy is made.
  //
  // The default destination is resolved below the home folder without
  // crossing a symbolic link or a mount point, so a link planted in the
  // home folder cannot redirect a restore made as root; its folder must
  // exist.  A given destination is taken as the caller typed it.
  //
  // Answers what was restored; nothing on failure, with `error` saying why:
  // InvalidPath, NoStoredVersions, VersionMissing (the message lists the
  // numbers stored), AmbiguousVersion, DestinationExists, or IOError.
  std::optional<RestoredVersion> restore(const std::string& path, const RestoreOptions& options,
                                         VersionError* error = nullptr) const;

  // The copy at the heart of a restore: the stored copy `storedRelative`
  // (below `backupFolder`) becomes `name` in the folder `folder` below the
  // trusted `root` (which must exist and is reached without links), as
  // `restore` describes; `what` names it in messages.  False with `error`
  // set when it cannot.
  static bool copyStored(const std::string& backupFolder, const std::string& storedRelative, const std::string& root,
                         const std::string& folder, const std::string& name, bool overwrite, const std::string& what,
                         VersionError* error);
  // Makes the folders of `relative` below `root` that are missing, with
  // `mode`, one at a time and never through a link or onto another mount.
  static bool makeFoldersBeneath(const std::string& root, const std::string& relative, uint32_t mode,
                                 VersionError* error);

 private:
  std::string backupFolder_;
  std::string home_;
};

}  // namespace skerrowctl
