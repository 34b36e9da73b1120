// Every stored file below a folder of a backup folder, grouped by the home
// file they are versions of: what `versions` and `restore` of a folder and
// the mounted view show.
//
// The walk follows no symbolic link (a folder replaced by a link is not a
// folder of the backup), keeps no more than one folder open at a time (each
// folder is reached again from the backup folder by its path, so a deep
// tree needs neither deep recursion nor many descriptors), and skips what
// is not a stored copy: the backup's metadata file, the engine's temporary
// files, names that are not version names.  Copies of one file are grouped
// as the engine groups them: by the name they parse to, ignoring letter
// case; the group's name is that of its newest copy.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Date.h"
#include "tools/skerrowctl/StoredVersion.h"
#include "tools/skerrowctl/VersionError.h"

namespace skerrowctl {

struct BackupFile {
  std::string path;                     // below the home folder: "Documents/report.txt"
  std::vector<StoredVersion> versions;  // lowest number first
};

struct BackupFolder {
  std::string path;  // below the home folder; "" for the home folder itself
  uint32_t mode = 0;
  platform::FileTime modificationTime;
};

struct BackupTreeListing {
  std::vector<BackupFolder> folders;  // the folder walked first, then every folder below it, by path
  std::vector<BackupFile> files;      // by path
};

// The stored files below `relativeFolder` ("" for the whole backup) of the
// backup folder `backupFolder`.  Nothing, with `error` set, when that
// folder is not in the backup (NoStoredVersions) or cannot be read (IOError).
std::optional<BackupTreeListing> listBackupTree(const std::string& backupFolder, const std::string& relativeFolder,
                                                VersionError* error);

// Whether `relative` is a folder of the backup folder (reached without links).
bool isBackupFolder(const std::string& backupFolder, const std::string& relative);

// The version that shows a file as it was at `date`: the newest whose
// modification date is not after it; without a date, the newest.  Nothing
// when every version is newer than the date (the file did not exist yet,
// as far as the backup knows).  `versions` are lowest number first.
const StoredVersion* versionAt(const std::vector<StoredVersion>& versions, std::optional<platform::Date> date);

}  // namespace skerrowctl
