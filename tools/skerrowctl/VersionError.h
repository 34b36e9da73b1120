// Why a call of the version browser answered nothing: a kind the command
// line can turn into an exit status, and a sentence to show the user.
#pragma once

#include <string>

namespace skerrowctl {

enum class VersionErrorKind {
  None,
  InvalidPath,        // empty, outside the home folder, escaping it with "..", or the home folder itself
  NoStoredVersions,   // the backup folder holds no copy of the file
  VersionMissing,     // the asked-for version is not stored
  AmbiguousVersion,   // two copies carry the same number ("a@1.txt" and "a@01.txt")
  DestinationExists,  // something stands at the destination and may not be replaced
  IOError,            // a system call failed; the message carries the system's text and the path
};

struct VersionError {
  VersionErrorKind kind = VersionErrorKind::None;
  std::string message;

  bool empty() const { return kind == VersionErrorKind::None; }
};

}  // namespace skerrowctl
