// The home folder as a backup shows it, at its newest or as it was at a
// date: what `skerrowctl mount` serves through FUSE.  Every stored file
// appears under its plain name ("report.txt" for "report@3.txt",
// ".profile" for "@1.profile") at the version BackupTree's versionAt picks;
// every folder of the backup appears as a folder; files with no version as
// old as the date are left out.
//
// Built once from a listing; read-only and safe to read from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Date.h"
#include "platform/FileAttributes.h"
#include "tools/skerrowctl/BackupTree.h"

namespace skerrowctl {

class BackupView {
 public:
  struct Node {
    bool folder = false;
    bool link = false;
    uint32_t mode = 0;  // permission bits of the copy (or folder)
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint64_t size = 0;
    platform::FileTime modificationTime;
    platform::FileTime accessTime;
    std::string stored;                 // the copy, below the backup folder (files only)
    std::vector<std::string> children;  // names, sorted (folders only)
  };

  // The view of `listing` (of a whole backup folder) at `at` (the newest without).
  static BackupView build(const BackupTreeListing& listing, std::optional<platform::Date> at);

  // The node at `path` ("/" or "/Documents/report.txt"), or nothing.
  const Node* find(const std::string& path) const;
  size_t fileCount() const { return files_; }

 private:
  std::map<std::string, Node> nodes_;  // by path below the home folder, "" for the root
  size_t files_ = 0;
};

}  // namespace skerrowctl
