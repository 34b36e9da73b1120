#include "platform/VolumeTree.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/Directory.h"

namespace platform {

namespace {

// openat2 beneath `root`; "" is the root itself.  Retries the EAGAIN that
// RESOLVE_BENEATH answers when a rename races with the lookup.
int openBeneath(int root, const std::string& relative, int flags) {
  struct open_how how;
  std::memset(&how, 0, sizeof how);
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  const char* path = relative.empty() ? "." : relative.c_str();
  for (int attempt = 0; attempt < 8; ++attempt) {
    const long fd = ::syscall(SYS_openat2, root, path, &how, sizeof how);
    if (fd >= 0 || errno != EAGAIN) return static_cast<int>(fd);
  }
  return -1;
}

// "a/b/c" as the folder "a/b" and the leaf "c"; false without a leaf.
bool split(const std::string& relative, std::string* folder, std::string* leaf) {
  const auto slash = relative.rfind('/');
  *folder = slash == std::string::npos ? std::string() : relative.substr(0, slash);
  *leaf = slash == std::string::npos ? relative : relative.substr(slash + 1);
  return VolumeFolder::isEntryName(*leaf);
}

std::optional<uint64_t> mountIdentifierAt(int dirfd, const char* path, int flags) {
  struct statx sx;
  if (::statx(dirfd, path, flags | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_MNT_ID, &sx) != 0) return std::nullopt;
  if (!(sx.stx_mask & STATX_MNT_ID)) return std::nullopt;
  return static_cast<uint64_t>(sx.stx_mnt_id);
}

// Percent-encodes what a file URL path may not hold as it is.
std::string escapedPath(const std::string& path) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : path) {
    if (std::isalnum(c) || std::strchr("/-_.~!$&'()*+,;=:@", c)) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(hex[c >> 4]);
      out.push_back(hex[c & 15]);
    }
  }
  return out;
}

}  // namespace

std::unique_ptr<VolumeTree> VolumeTree::open(const std::string& rootPath) {
  FileDescriptor fd(::open(rootPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return nullptr;
  return std::unique_ptr<VolumeTree>(new VolumeTree(rootPath, std::move(fd)));
}

std::unique_ptr<VolumeFolder> VolumeTree::openFolder(const std::string& relative) const {
  FileDescriptor fd(openBeneath(root_.get(), relative, O_RDONLY | O_DIRECTORY));
  if (!fd) return nullptr;
  return std::make_unique<VolumeFolder>(std::move(fd));
}

bool VolumeTree::attributesAt(const std::string& relative, FileAttributes* attributes) const {
  if (relative.empty()) return statAt(root_.get(), "", attributes, false);
  std::string folder, leaf;
  if (!split(relative, &folder, &leaf)) return false;
  const auto parent = openFolder(folder);
  return parent && parent->attributesOf(leaf, attributes);
}

bool VolumeTree::isFolderAt(const std::string& relative) const {
  FileAttributes attributes;
  return attributesAt(relative, &attributes) && attributes.isDirectory();
}

int VolumeTree::rename(const std::string& from, const std::string& to, bool replace) {
  std::string fromFolder, fromLeaf, toFolder, toLeaf;
  if (!split(from, &fromFolder, &fromLeaf) || !split(to, &toFolder, &toLeaf)) return EINVAL;
  const auto source = openFolder(fromFolder);
  if (!source) return errno ? errno : ENOENT;
  const auto destination = openFolder(toFolder);
  if (!destination) return errno ? errno : ENOENT;
  return source->moveEntry(fromLeaf, *destination, toLeaf, replace);
}

bool VolumeTree::moveToTrash(const std::string& relative, std::string* why) {
  std::string folder, leaf;
  if (!split(relative, &folder, &leaf)) {
    if (why) *why = "not an item of the volume";
    return false;
  }
  const auto source = openFolder(folder);
  const auto root = openFolder("");
  if (!source || !root) {
    if (why) *why = std::string("cannot reach ") + relative + ": " + std::strerror(errno);
    return false;
  }
  const std::string trashName = ".Trash-" + std::to_string(::geteuid());
  if (!root->makeChild(trashName, 0700)) {
    if (why) *why = "cannot make the trash folder " + trashName + ": " + std::strerror(errno);
    return false;
  }
  const auto trash = root->openChild(trashName);
  if (!trash || !trash->makeChild("files", 0700) || !trash->makeChild("info", 0700)) {
    if (why) *why = "cannot make the trash folder " + trashName;
    return false;
  }
  const auto files = trash->openChild("files");
  const auto info = trash->openChild("info");
  if (!files || !info) {
    if (why) *why = "cannot open the trash folder " + trashName;
    return false;
  }
  char date[32];
  const time_t now = ::time(nullptr);
  struct tm local {};
  ::localtime_r(&now, &local);
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
  const std::string record = "[Trash Info]\nPath=" + escapedPath(relative) + "\nDeletionDate=" + date + "\n";
  for (unsigned attempt = 1; attempt < 10000; ++attempt) {
    const std::string name = attempt == 1 ? leaf : leaf + "." + std::to_string(attempt);
    const std::string infoName = name + ".trashinfo";
    // The record is made first and exclusively: it reserves the name.
    FileDescriptor fd(::openat(info->fd(), infoName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) {
      if (errno == EEXIST) continue;
      if (why) *why = "cannot write the trash record " + infoName + ": " + std::strerror(errno);
      return false;
    }
    const bool written = ::write(fd.get(), record.data(), record.size()) == static_cast<ssize_t>(record.size());
    fd.reset();
    const int moved = written ? source->moveEntry(leaf, *files, name, false) : EIO;
    if (moved == 0) return true;
    info->removeEntry(infoName);
    if (moved == EEXIST) continue;
    if (why) *why = "cannot move " + relative + " to the trash: " + std::strerror(moved);
    return false;
  }
  if (why) *why = "no free name in the trash";
  return false;
}

std::optional<uint64_t> VolumeTree::openedMountIdentifier() const {
  return mountIdentifierAt(root_.get(), "", AT_EMPTY_PATH);
}

std::optional<uint64_t> VolumeTree::currentMountIdentifier() const {
  return mountIdentifierAt(AT_FDCWD, rootPath_.c_str(), 0);
}

bool VolumeTree::isStillMounted() const {
  const auto opened = openedMountIdentifier();
  return opened && opened == currentMountIdentifier();
}

bool VolumeTree::isWritable(std::string* why) const {
  struct statvfs vfs;
  if (::fstatvfs(root_.get(), &vfs) != 0) {
    if (why) *why = std::string("the volume cannot be examined: ") + std::strerror(errno);
    return false;
  }
  if (vfs.f_flag & ST_RDONLY) {
    if (why) *why = "the volume is mounted read-only";
    return false;
  }
  if (::faccessat(root_.get(), ".", W_OK, AT_EACCESS) != 0) {
    if (why) *why = std::string("the volume cannot be written: ") + std::strerror(errno);
    return false;
  }
  return true;
}

std::optional<uint64_t> VolumeTree::freeBytes() const {
  struct statvfs vfs;
  if (::fstatvfs(root_.get(), &vfs) != 0) return std::nullopt;
  return static_cast<uint64_t>(vfs.f_bavail) * static_cast<uint64_t>(vfs.f_frsize);
}

uint64_t VolumeTree::blockSize() const {
  struct statvfs vfs;
  if (::fstatvfs(root_.get(), &vfs) != 0 || vfs.f_frsize == 0) return 4096;
  return static_cast<uint64_t>(vfs.f_frsize);
}

bool VolumeTree::synchronize() const { return ::syncfs(root_.get()) == 0; }

VolumeTree::Lock VolumeTree::tryLock() {
  if (::flock(root_.get(), LOCK_EX | LOCK_NB) == 0) return Lock::Held;
  return errno == EWOULDBLOCK ? Lock::Busy : Lock::Unsupported;
}

}  // namespace platform
