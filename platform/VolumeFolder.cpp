#include "platform/VolumeFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

#include "platform/Directory.h"

namespace platform {

namespace {

constexpr size_t kTemporarySuffixLength = 6;

// Opens the single entry `name` of `dirfd` without following a link or leaving the mount.
int openEntry(int dirfd, const std::string& name, int flags) {
  struct open_how how;
  std::memset(&how, 0, sizeof how);
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  for (int attempt = 0; attempt < 8; ++attempt) {
    const long fd = ::syscall(SYS_openat2, dirfd, name.c_str(), &how, sizeof how);
    if (fd >= 0 || errno != EAGAIN) return static_cast<int>(fd);
  }
  return -1;
}

std::string temporarySuffix() {
  static const char* letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  thread_local std::mt19937_64 generator(std::random_device{}() ^ static_cast<uint64_t>(::getpid()));
  std::string suffix;
  for (size_t i = 0; i < kTemporarySuffixLength; ++i) suffix.push_back(letters[generator() % 62]);
  return suffix;
}

}  // namespace

bool VolumeFolder::isEntryName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

std::optional<std::vector<VolumeFolder::Entry>> VolumeFolder::entriesWithTypes() const {
  const int dup = ::fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0);
  if (dup < 0) return std::nullopt;
  DIR* stream = ::fdopendir(dup);
  if (!stream) {
    ::close(dup);
    return std::nullopt;
  }
  // The duplicate shares the folder's reading position: start from the top.
  ::rewinddir(stream);
  std::vector<Entry> entries;
  while (struct dirent* entry = ::readdir(stream)) {
    const char* n = entry->d_name;
    if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
    Entry::Type type = Entry::Type::Unknown;
    switch (entry->d_type) {
      case DT_DIR: type = Entry::Type::Directory; break;
      case DT_REG: type = Entry::Type::Regular; break;
      case DT_LNK: type = Entry::Type::SymbolicLink; break;
      case DT_UNKNOWN: break;
      default: type = Entry::Type::Other; break;
    }
    entries.push_back(Entry{n, type});
  }
  ::closedir(stream);
  return entries;
}

std::optional<std::vector<std::string>> VolumeFolder::entries() const {
  auto listed = entriesWithTypes();
  if (!listed) return std::nullopt;
  std::vector<std::string> names;
  names.reserve(listed->size());
  for (auto& entry : *listed) names.push_back(std::move(entry.name));
  return names;
}

VolumeFolder::Entry::Type VolumeFolder::typeOf(const Entry& entry) const {
  if (entry.type != Entry::Type::Unknown) return entry.type;
  FileAttributes attributes;
  if (!attributesOf(entry.name, &attributes)) return Entry::Type::Other;
  if (attributes.isDirectory()) return Entry::Type::Directory;
  if (attributes.isRegularFile()) return Entry::Type::Regular;
  if (attributes.isSymbolicLink()) return Entry::Type::SymbolicLink;
  return Entry::Type::Other;
}

bool VolumeFolder::attributesOf(const std::string& name, FileAttributes* attributes) const {
  return isEntryName(name) && statAt(fd_.get(), name.c_str(), attributes, false);
}

bool VolumeFolder::attributes(FileAttributes* attributes) const {
  return statAt(fd_.get(), "", attributes, false);
}

std::unique_ptr<VolumeFolder> VolumeFolder::openChild(const std::string& name) const {
  if (!isEntryName(name)) return nullptr;
  FileDescriptor fd(openEntry(fd_.get(), name, O_RDONLY | O_DIRECTORY));
  if (!fd) return nullptr;
  return std::make_unique<VolumeFolder>(std::move(fd));
}

bool VolumeFolder::makeChild(const std::string& name, uint32_t mode, std::optional<uint32_t> uid,
                             std::optional<uint32_t> gid) {
  if (!isEntryName(name)) return false;
  if (::mkdirat(fd_.get(), name.c_str(), mode & 07777) != 0) {
    FileAttributes existing;
    return errno == EEXIST && attributesOf(name, &existing) && existing.isDirectory();
  }
  if (uid || gid)
    ::fchownat(fd_.get(), name.c_str(), uid ? *uid : static_cast<uid_t>(-1), gid ? *gid : static_cast<gid_t>(-1),
               AT_SYMLINK_NOFOLLOW);
  // Not narrowed by the umask.
  ::fchmodat(fd_.get(), name.c_str(), mode & 07777, 0);
  return true;
}

int VolumeFolder::moveEntry(const std::string& name, const VolumeFolder& destination, const std::string& newName,
                            bool replace) {
  if (!isEntryName(name) || !isEntryName(newName)) return EINVAL;
  if (::renameat2(fd_.get(), name.c_str(), destination.fd(), newName.c_str(), replace ? 0 : RENAME_NOREPLACE) == 0)
    return 0;
  const int code = errno;
  if (replace || (code != EINVAL && code != ENOSYS)) return code;
  // A file system that cannot refuse to replace (some FUSE servers): look first.
  FileAttributes existing;
  if (destination.attributesOf(newName, &existing)) return EEXIST;
  return ::renameat(fd_.get(), name.c_str(), destination.fd(), newName.c_str()) == 0 ? 0 : errno;
}

bool VolumeFolder::setModificationTime(const std::string& name, const FileTime& time) {
  if (!isEntryName(name)) return false;
  struct timespec ts[2];
  ts[0].tv_sec = 0;
  ts[0].tv_nsec = UTIME_OMIT;
  ts[1].tv_sec = static_cast<time_t>(time.seconds);
  ts[1].tv_nsec = static_cast<long>(time.nanoseconds);
  return ::utimensat(fd_.get(), name.c_str(), ts, AT_SYMLINK_NOFOLLOW) == 0;
}

bool VolumeFolder::removeEntry(const std::string& name) {
  if (!isEntryName(name)) return false;
  if (::unlinkat(fd_.get(), name.c_str(), 0) == 0) return true;
  if (errno != EISDIR && errno != EPERM) return false;
  return ::unlinkat(fd_.get(), name.c_str(), AT_REMOVEDIR) == 0;
}

std::optional<std::string> VolumeFolder::readFile(const std::string& name, size_t maxSize) const {
  if (!isEntryName(name)) return std::nullopt;
  FileDescriptor fd(openEntry(fd_.get(), name, O_RDONLY | O_NOCTTY | O_NONBLOCK));
  if (!fd) return std::nullopt;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) > maxSize)
    return std::nullopt;
  std::string bytes(static_cast<size_t>(st.st_size), '\0');
  size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t n = ::read(fd.get(), bytes.data() + got, bytes.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    got += static_cast<size_t>(n);
  }
  return bytes;
}

bool VolumeFolder::writeFileAtomically(const std::string& name, const std::string& bytes, uint32_t mode) {
  if (!isEntryName(name)) return false;
  std::string temporary;
  FileDescriptor fd;
  for (int attempt = 0; attempt < 16 && !fd; ++attempt) {
    temporary = "." + name + "." + temporarySuffix();
    fd.reset(::openat(fd_.get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd && errno != EEXIST) return false;
  }
  if (!fd) return false;
  FileAttributes existing;
  const uint32_t finalMode = attributesOf(name, &existing) && existing.isRegularFile() ? existing.mode & 07777 : mode;
  bool ok = ::fchmod(fd.get(), finalMode & 07777) == 0 && writeAll(fd.get(), bytes.data(), bytes.size()) &&
            ::fsync(fd.get()) == 0;
  if (::close(fd.release()) != 0) ok = false;
  if (ok) ok = ::renameat(fd_.get(), temporary.c_str(), fd_.get(), name.c_str()) == 0;
  if (!ok) {
    ::unlinkat(fd_.get(), temporary.c_str(), 0);
    return false;
  }
  synchronize();
  return true;
}

bool VolumeFolder::isTemporaryNameOf(const std::string& name, const std::string& target) {
  const std::string prefix = "." + target + ".";
  return name.size() == prefix.size() + kTemporarySuffixLength && name.compare(0, prefix.size(), prefix) == 0;
}

bool VolumeFolder::synchronize() const { return ::fsync(fd_.get()) == 0; }

}  // namespace platform
