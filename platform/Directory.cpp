#include "platform/Directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/ExtendedAttributes.h"

namespace platform {
namespace {

FileAttributes::Type typeOf(uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG: return FileAttributes::Type::Regular;
    case S_IFDIR: return FileAttributes::Type::Directory;
    case S_IFLNK: return FileAttributes::Type::SymbolicLink;
    default: return FileAttributes::Type::Other;
  }
}

FileTime timeOf(const struct statx_timestamp& t) { return FileTime{t.tv_sec, t.tv_nsec}; }

// "<seconds>.<nanoseconds>" since 1970, as FileCopier writes it (at most nine
// digits after the point; fewer mean a shorter fraction, "5.25" is 5.250000000).
bool parseStoredTime(const char* text, size_t length, FileTime* out) {
  size_t i = 0;
  bool negative = false;
  if (i < length && text[i] == '-') {
    negative = true;
    ++i;
  }
  const size_t firstDigit = i;
  long long seconds = 0;
  for (; i < length && text[i] >= '0' && text[i] <= '9'; ++i) {
    if (i - firstDigit >= 18) return false;
    seconds = seconds * 10 + (text[i] - '0');
  }
  if (i == firstDigit || i >= length || text[i] != '.') return false;
  const size_t firstFraction = ++i;
  unsigned nanoseconds = 0;
  for (; i < length && text[i] >= '0' && text[i] <= '9'; ++i) {
    if (i - firstFraction >= 9) return false;
    nanoseconds = nanoseconds * 10 + static_cast<unsigned>(text[i] - '0');
  }
  if (i == firstFraction || i != length) return false;
  for (size_t digits = i - firstFraction; digits < 9; ++digits) nanoseconds *= 10;
  out->seconds = negative ? -seconds : seconds;
  out->nanoseconds = nanoseconds;
  return true;
}

// Reads attribute `attribute` of `name` in the folder `dirfd` without
// following a final symbolic link.  getxattrat (Linux 6.13) does it in one
// call; older kernels go through the folder's /proc/self/fd entry, which costs
// about twice as much.  A system-call filter older than getxattrat (systemd's
// SystemCallFilter= with SystemCallErrorNumber=EPERM, as skerrowd.service
// has) refuses it with EPERM, which reading an attribute never answers
// otherwise: that too means "use the /proc way".
#ifndef __NR_getxattrat
#define __NR_getxattrat 464  // the same number on every architecture that has it
#endif
struct XattrArgs {
  uint64_t value;
  uint32_t size;
  uint32_t flags;
};
std::atomic<bool> getxattratMissing{false};

ssize_t readAttributeAt(int dirfd, const char* name, const char* attribute, char* value, size_t size) {
  if (!getxattratMissing.load(std::memory_order_relaxed)) {
    XattrArgs args{reinterpret_cast<uintptr_t>(value), static_cast<uint32_t>(size), 0};
    const unsigned flags = AT_SYMLINK_NOFOLLOW | (name[0] == '\0' ? AT_EMPTY_PATH : 0);
    const long n = ::syscall(__NR_getxattrat, dirfd, name, flags, attribute, &args, sizeof args);
    if (n >= 0 || (errno != ENOSYS && errno != EPERM)) return n;
    getxattratMissing.store(true, std::memory_order_relaxed);
  }
  std::string path;
  if (dirfd == AT_FDCWD) {
    path = name;
  } else {
    path = "/proc/self/fd/" + std::to_string(dirfd);
    if (name[0] != '\0') path += std::string("/") + name;
  }
  return ::lgetxattr(path.c_str(), attribute, value, size);
}

}  // namespace

bool statAt(int dirfd, const char* name, FileAttributes* a, bool preferStoredCreationDate) {
  struct statx sx;
  const unsigned mask = STATX_TYPE | STATX_MODE | STATX_NLINK | STATX_UID | STATX_GID | STATX_ATIME | STATX_MTIME |
                        STATX_INO | STATX_SIZE | STATX_BLOCKS | STATX_BTIME;
  int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_SYNC_AS_STAT;
  if (name[0] == '\0') flags |= AT_EMPTY_PATH;
  if (::statx(dirfd, name, flags, mask, &sx) != 0) return false;
  a->type = typeOf(sx.stx_mode);
  a->size = sx.stx_size;
  a->allocatedSize = sx.stx_blocks * 512;
  a->mode = sx.stx_mode;
  a->uid = sx.stx_uid;
  a->gid = sx.stx_gid;
  a->linkCount = sx.stx_nlink;
  a->device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
  a->inode = sx.stx_ino;
  a->modificationTime = timeOf(sx.stx_mtime);
  a->accessTime = timeOf(sx.stx_atime);
  // The change time is not asked for: asking makes some FUSE file systems
  // answer afresh instead of from the kernel's cache, with other times than
  // every other reading.  Local file systems fill it all the same.
  a->changeTime = (sx.stx_mask & STATX_CTIME) ? timeOf(sx.stx_ctime) : FileTime{};
  a->creatorCode = 0;
  a->typeCode = 0;
  if (sx.stx_mask & STATX_BTIME) {
    a->creationTime = timeOf(sx.stx_btime);
    a->creationSource = FileAttributes::CreationSource::BirthTime;
  } else {
    a->creationTime = FileTime{};
    a->creationSource = FileAttributes::CreationSource::None;
  }
  if (preferStoredCreationDate) readStoredCreationDate(dirfd, name, a);
  return true;
}

void readStoredCreationDate(int dirfd, const char* name, FileAttributes* a) {
  if (a->type == FileAttributes::Type::SymbolicLink) return;
  static const std::string attribute = ExtendedAttributes::systemName(kCreationDateAttribute);
  char value[64];
  const ssize_t n = readAttributeAt(dirfd, name, attribute.c_str(), value, sizeof value);
  FileTime stored;
  if (n > 0 && parseStoredTime(value, static_cast<size_t>(n), &stored)) {
    a->creationTime = stored;
    a->creationSource = FileAttributes::CreationSource::StoredAttribute;
  }
}

std::optional<std::vector<std::string>> listEntries(int dirfd) {
  const int dup = ::fcntl(dirfd, F_DUPFD_CLOEXEC, 0);
  if (dup < 0) return std::nullopt;
  DIR* stream = ::fdopendir(dup);
  if (!stream) {
    ::close(dup);
    return std::nullopt;
  }
  std::vector<std::string> names;
  while (struct dirent* entry = ::readdir(stream)) {
    const char* n = entry->d_name;
    if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
    names.emplace_back(n);
  }
  ::closedir(stream);
  return names;
}

Directory::Directory(FileDescriptor fd) : fd_(std::move(fd)) {}

Directory::~Directory() {
  if (stream_) ::closedir(stream_);  // closes the duplicate it was made from; fd_ closes itself
}

std::unique_ptr<Directory> Directory::open(const std::string& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return nullptr;
  return std::unique_ptr<Directory>(new Directory(std::move(fd)));
}

std::unique_ptr<Directory> Directory::openChild(const std::string& name) const {
  FileDescriptor fd(::openat(fd_.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return nullptr;
  return std::unique_ptr<Directory>(new Directory(std::move(fd)));
}

std::unique_ptr<Directory> Directory::openBeneath(const std::string& root, const std::string& relative) {
  auto folder = open(root);
  size_t start = 0;
  while (folder && start < relative.size()) {
    const size_t slash = relative.find('/', start);
    const size_t end = slash == std::string::npos ? relative.size() : slash;
    const std::string part = relative.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") return nullptr;
    folder = folder->openChild(part);
  }
  return folder;
}

bool Directory::renameEntry(const std::string& from, const std::string& to) const {
  return ::renameat(fd_.get(), from.c_str(), fd_.get(), to.c_str()) == 0;
}

bool Directory::readEntry(std::string* name) {
  if (!stream_) {
    // fdopendir takes over a descriptor of its own, so the folder can be listed once.
    const int dup = ::fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0);
    if (dup < 0) return false;
    stream_ = ::fdopendir(dup);
    if (!stream_) {
      ::close(dup);
      return false;
    }
  }
  while (true) {
    errno = 0;
    struct dirent* entry = ::readdir(stream_);
    if (!entry) return false;
    const char* n = entry->d_name;
    if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
    name->assign(n);
    return true;
  }
}

bool Directory::attributesOf(const std::string& name, FileAttributes* attributes, bool preferStoredCreationDate) const {
  return statAt(fd_.get(), name.c_str(), attributes, preferStoredCreationDate);
}

void Directory::readStoredCreationDateOf(const std::string& name, FileAttributes* attributes) const {
  readStoredCreationDate(fd_.get(), name.c_str(), attributes);
}

bool Directory::attributes(FileAttributes* attributes) const { return statAt(fd_.get(), "", attributes, false); }

}  // namespace platform
