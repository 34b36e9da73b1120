// Atomic replacement of a file's contents.
//
// The bytes go to a temporary file in the same folder, which is flushed to
// the disk (fsync), renamed over the target, and the folder is flushed too,
// so after a crash the target holds either the old or the new contents,
// never a mixture.  The temporary file is removed when anything fails.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace platform {

class AtomicFile {
 public:
  // Mode of a newly created file (an existing file's mode is kept).
  static bool write(const std::string& path, const std::string& bytes, mode_t newFileMode = 0644);

  // The whole contents of a regular file, at most `maxSize` bytes; nothing when
  // missing, not a regular file, larger than `maxSize` or unreadable (errno
  // then says which: EFBIG for a file too large, EINVAL for one not regular).
  static std::optional<std::string> read(const std::string& path, size_t maxSize);
};

}  // namespace platform
