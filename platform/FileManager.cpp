#include "platform/FileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/Directory.h"
#include "platform/FileDescriptor.h"

namespace platform {

FileError posixError(int code, const std::string& path, const std::string& action) {
  return FileError{kPOSIXErrorDomain, code, path, action + ": " + std::strerror(code)};
}

bool FileManager::attributesAtPath(const std::string& path, FileAttributes* attributes, bool preferStoredCreationDate) {
  if (path.empty()) return false;
  return statAt(AT_FDCWD, path.c_str(), attributes, preferStoredCreationDate);
}

bool FileManager::createDirectoryAtPath(const std::string& path, bool intermediates, uint32_t mode, FileError* error) {
  if (path.empty()) {
    if (error) *error = posixError(ENOENT, path, "Unable to create directory");
    return false;
  }
  if (::mkdir(path.c_str(), mode) == 0) return true;
  int code = errno;
  if (intermediates && code == ENOENT) {
    const auto slash = path.find_last_of('/', path.size() > 1 ? path.size() - 2 : 0);
    if (slash != std::string::npos && slash > 0) {
      const std::string parent = path.substr(0, slash);
      if (!isDirectoryAtPath_error(parent, nullptr) && !createDirectoryAtPath(parent, true, mode, error)) return false;
    }
    if (::mkdir(path.c_str(), mode) == 0) return true;
    code = errno;
  }
  if (intermediates && code == EEXIST && isDirectoryAtPath_error(path, nullptr)) return true;
  if (error) *error = posixError(code, path, "Unable to create directory");
  return false;
}

bool FileManager::insureDirectoryAtPath(const std::string& path) {
  if (isDirectoryAtPath_error(path, nullptr)) return true;
  return createDirectoryAtPath(path, true, 0755, nullptr);
}

bool FileManager::isDirectoryAtPath_error(const std::string& path, FileError* error) {
  if (error) *error = FileError{};
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool FileManager::fileExistsAtPath_isDirectory_traverseLink(const std::string& path, bool* isDirectory,
                                                            bool traverseLink) {
  struct stat st;
  const int r = traverseLink ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
  if (isDirectory) *isDirectory = r == 0 && S_ISDIR(st.st_mode);
  return r == 0;
}

bool FileManager::fileExistsAtPath_traverseLink(const std::string& path, bool traverseLink) {
  return fileExistsAtPath_isDirectory_traverseLink(path, nullptr, traverseLink);
}

bool FileManager::
    getFileAttributesAtPath_isDirectory_isRegularFile_isSymbolicLink_creationDateSecondsSinceReferenceDate_modificationDateSecondsSinceReferenceDate(
        const std::string& path, bool* isDirectory, bool* isRegularFile, bool* isSymbolicLink, double* creationDate,
        double* modificationDate) {
  FileAttributes a;
  if (!attributesAtPath(path, &a, /*preferStoredCreationDate=*/true)) {
    if (isDirectory) *isDirectory = false;
    if (isRegularFile) *isRegularFile = false;
    if (isSymbolicLink) *isSymbolicLink = false;
    if (creationDate) *creationDate = 0;
    if (modificationDate) *modificationDate = 0;
    return false;
  }
  if (isDirectory) *isDirectory = a.isDirectory();
  if (isRegularFile) *isRegularFile = a.isRegularFile();
  if (isSymbolicLink) *isSymbolicLink = a.isSymbolicLink();
  if (creationDate) *creationDate = a.creationTime.sinceReferenceDate();
  if (modificationDate) *modificationDate = a.modificationTime.sinceReferenceDate();
  return true;
}

std::optional<std::vector<std::string>> FileManager::extendedAttributesForPath_traverseLink(const std::string& path,
                                                                                           bool traverseLink) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const ssize_t size = traverseLink ? ::listxattr(path.c_str(), nullptr, 0) : ::llistxattr(path.c_str(), nullptr, 0);
    if (size <= 0) return std::nullopt;
    std::vector<char> buffer(static_cast<size_t>(size), '\0');
    const ssize_t got = traverseLink ? ::listxattr(path.c_str(), buffer.data(), buffer.size())
                                     : ::llistxattr(path.c_str(), buffer.data(), buffer.size());
    if (got < 0 && errno == ERANGE) continue;  // the list grew in between
    if (got <= 0) return std::nullopt;
    std::vector<std::string> names;
    size_t start = 0;
    while (start < static_cast<size_t>(got)) {
      const size_t length = ::strnlen(buffer.data() + start, static_cast<size_t>(got) - start);
      if (length == 0) break;
      names.emplace_back(buffer.data() + start, length);
      start += length + 1;
    }
    if (names.empty()) return std::nullopt;
    return names;
  }
  return std::nullopt;
}

uint64_t FileManager::fullFileSizeForPath_physicalSize_traverseLink(const std::string& path, uint64_t* physicalSize,
                                                                    bool traverseLink) {
  struct stat st;
  const int r = traverseLink ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
  if (r != 0 || S_ISDIR(st.st_mode)) {
    if (physicalSize) *physicalSize = 0;
    return 0;
  }
  if (physicalSize) *physicalSize = static_cast<uint64_t>(st.st_blocks) * 512;
  return static_cast<uint64_t>(st.st_size);
}

bool FileManager::removeItemAt(int dirfd, const std::string& name) {
  if (::unlinkat(dirfd, name.c_str(), 0) == 0 || errno == ENOENT) return true;
  if (errno != EISDIR && errno != EPERM) return false;
  // A folder: empty it through its own descriptor (never following a link), then remove it.
  FileDescriptor folder(::openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder) return false;
  const auto names = listEntries(folder.get());
  if (!names) return false;
  bool ok = true;
  for (const std::string& n : *names) ok = removeItemAt(folder.get(), n) && ok;
  if (::unlinkat(dirfd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return ok;
  return false;
}

bool FileManager::removeItemAtPath(const std::string& path, FileError* error) {
  std::string parent = ".";
  std::string leaf = path;
  const auto slash = path.find_last_of('/');
  if (slash != std::string::npos) {
    parent = slash == 0 ? "/" : path.substr(0, slash);
    leaf = path.substr(slash + 1);
  }
  FileDescriptor dir(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir || leaf.empty() || leaf == "." || leaf == "..") {
    if (error) *error = posixError(dir ? EINVAL : errno, path, "Unable to remove");
    return false;
  }
  if (removeItemAt(dir.get(), leaf)) return true;
  if (error) *error = posixError(errno ? errno : EIO, path, "Unable to remove");
  return false;
}

bool FileManager::setTimes(const std::string& path, const FileTime* access, const FileTime* modification,
                           bool followLink) {
  struct timespec ts[2];
  ts[0].tv_sec = access ? static_cast<time_t>(access->seconds) : 0;
  ts[0].tv_nsec = access ? static_cast<long>(access->nanoseconds) : UTIME_OMIT;
  ts[1].tv_sec = modification ? static_cast<time_t>(modification->seconds) : 0;
  ts[1].tv_nsec = modification ? static_cast<long>(modification->nanoseconds) : UTIME_OMIT;
  return ::utimensat(AT_FDCWD, path.c_str(), ts, followLink ? 0 : AT_SYMLINK_NOFOLLOW) == 0;
}

bool FileManager::setOwner(const std::string& path, uint32_t uid, uint32_t gid, bool followLink) {
  return (followLink ? ::chown(path.c_str(), uid, gid) : ::lchown(path.c_str(), uid, gid)) == 0;
}

bool FileManager::setPermissions(const std::string& path, uint32_t mode) { return ::chmod(path.c_str(), mode & 07777) == 0; }

std::optional<FileManager::VolumeTraits> FileManager::probeVolumeTraits(const std::string& folder) {
  const std::string name = folder + "/.skerrow-probe-" + std::to_string(::getpid());
  FileDescriptor fd(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) return std::nullopt;
  VolumeTraits traits;
  // An odd second and a nanosecond part: every coarser clock shows a difference.
  const struct timespec wanted = {1234567891, 123456789};
  const struct timespec times[2] = {wanted, wanted};
  struct stat st;
  if (::futimens(fd.get(), times) == 0 && ::fstat(fd.get(), &st) == 0) {
    const int64_t set = static_cast<int64_t>(wanted.tv_sec) * 1000000000 + wanted.tv_nsec;
    const int64_t got = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    const uint64_t difference = static_cast<uint64_t>(set > got ? set - got : got - set);
    for (uint64_t g : {uint64_t{1}, uint64_t{1000}, uint64_t{10000000}, uint64_t{1000000000}, uint64_t{2000000000}}) {
      traits.timeGranularityNanoseconds = g;
      if (difference < g) break;
    }
  }
  traits.keepsUserAttributes = ::fsetxattr(fd.get(), "user.com.qsc.probe", "1", 1, 0) == 0;
  fd.reset();
  ::unlink(name.c_str());
  return traits;
}

std::optional<uint64_t> FileManager::freeSpaceAtPath(const std::string& path) {
  struct statvfs vfs;
  if (::statvfs(path.c_str(), &vfs) != 0) return std::nullopt;
  return static_cast<uint64_t>(vfs.f_bavail) * static_cast<uint64_t>(vfs.f_frsize);
}

std::optional<std::string> FileManager::resolvingSymlinksInPath(const std::string& path) {
  std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr), std::free);
  if (!resolved) return std::nullopt;
  return std::string(resolved.get());
}

bool FileManager::synchronizeFileSystemAtPath(const std::string& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) fd.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return fd && ::syncfs(fd.get()) == 0;
}

bool FileManager::moveItemAtPath_toPath(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace platform
