#include "platform/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/FileDescriptor.h"

namespace platform {

std::unique_ptr<MappedFile> MappedFile::open(const std::string& path, size_t maxSize) {
  // Non-blocking, so that a FIFO planted where the file is expected is
  // refused below instead of holding the caller for ever.
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd) return nullptr;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) return nullptr;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return nullptr;
  }
  const auto size = static_cast<unsigned long long>(st.st_size);
  if (size > maxSize) {
    errno = EFBIG;
    return nullptr;
  }
  if (size == 0) return std::unique_ptr<MappedFile>(new MappedFile(nullptr, 0));
  void* bytes = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, fd.get(), 0);
  if (bytes == MAP_FAILED) return nullptr;
  return std::unique_ptr<MappedFile>(new MappedFile(static_cast<const char*>(bytes), static_cast<size_t>(size)));
}

MappedFile::~MappedFile() {
  if (data_ != nullptr) ::munmap(const_cast<char*>(data_), size_);
}

}  // namespace platform
