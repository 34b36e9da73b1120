#include "platform/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/FileDescriptor.h"

namespace platform {
namespace {

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string leafOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool AtomicFile::write(const std::string& path, const std::string& bytes, mode_t newFileMode) {
  const std::string folder = folderOf(path);
  std::string temp = folder + "/." + leafOf(path) + ".XXXXXX";
  std::vector<char> name(temp.begin(), temp.end());
  name.push_back('\0');
  int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return false;
  temp.assign(name.data());

  mode_t mode = newFileMode;
  struct stat existing;
  if (::stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) mode = existing.st_mode & 07777;

  bool ok = ::fchmod(fd, mode) == 0 && writeAll(fd, bytes.data(), bytes.size()) && ::fsync(fd) == 0;
  if (::close(fd) != 0) ok = false;
  if (ok) ok = ::rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(temp.c_str());
    return false;
  }
  int dfd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    ::fsync(dfd);
    ::close(dfd);
  }
  return true;
}

std::optional<std::string> AtomicFile::read(const std::string& path, size_t maxSize) {
  // Non-blocking, so that a FIFO planted where a file is expected is
  // refused below instead of holding the reader for ever.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat st;
  int refusal = 0;
  if (::fstat(fd, &st) != 0)
    refusal = errno;
  else if (!S_ISREG(st.st_mode))
    refusal = EINVAL;
  else if (static_cast<unsigned long long>(st.st_size) > maxSize)
    refusal = EFBIG;
  if (refusal != 0) {
    ::close(fd);
    errno = refusal;
    return std::nullopt;
  }
  // One byte more than the file holds: the read that finds the end then
  // needs no second, larger buffer.  A file that grew since fstat fills it,
  // and is read on up to one byte past the limit, which refuses it.
  const size_t limit = maxSize < SIZE_MAX ? maxSize + 1 : maxSize;
  std::string out;
  out.resize(static_cast<size_t>(st.st_size) + 1);
  size_t got = 0;
  while (true) {
    if (got == out.size()) {
      if (got >= limit) {
        ::close(fd);
        errno = EFBIG;
        return std::nullopt;
      }
      out.resize(std::min(limit, out.size() * 2 + 4096));
    }
    ssize_t n = ::read(fd, out.data() + got, out.size() - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  out.resize(got);
  return out;
}

}  // namespace platform
