// A regular file's bytes mapped read-only into memory: its pages are the
// page cache's own, shared rather than copied, brought in as they are read
// and let go with the mapping.
//
// Meant for files this process replaces whole (written beside and renamed
// into place, as AtomicFile does): a mapping keeps the bytes of the file it
// was made from.  A file cut short in place while mapped would fault on the
// bytes gone.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace platform {

class MappedFile {
 public:
  // The regular file at `path`, mapped whole; nothing when it is missing,
  // not a regular file (errno EINVAL), larger than `maxSize` (EFBIG) or
  // cannot be read or mapped.  An empty file maps to no bytes.
  static std::unique_ptr<MappedFile> open(const std::string& path, size_t maxSize);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // The file's bytes (aligned to a page), valid as long as this object.
  const char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  MappedFile(const char* data, size_t size) : data_(data), size_(size) {}
  const char* data_;
  size_t size_;
};

}  // namespace platform
