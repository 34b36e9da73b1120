#include "platform/FileCopier.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/Directory.h"
#include "platform/ExtendedAttributes.h"
#include "platform/FileDescriptor.h"
#include "platform/FileManager.h"

namespace platform {
namespace {

std::atomic<bool> gVersionProbePending{false};
std::atomic<bool> gUseLegacyCopy{false};
std::atomic<uint64_t> gTemporaryCounter{0};

constexpr uint64_t kBeneath = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;

// openat2 below `root`; "" means the root itself.  Retries the EAGAIN that
// RESOLVE_BENEATH answers when a rename races with the lookup.
int openBeneath(int root, const std::string& relative, int flags) {
  struct open_how how;
  std::memset(&how, 0, sizeof how);
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.resolve = kBeneath;
  const char* path = relative.empty() ? "." : relative.c_str();
  for (int attempt = 0; attempt < 8; ++attempt) {
    const long fd = ::syscall(SYS_openat2, root, path, &how, sizeof how);
    if (fd >= 0 || errno != EAGAIN) return static_cast<int>(fd);
  }
  return -1;
}

// Splits "a/b/c" into "a/b" and "c", dropping empty components.
bool splitRelative(const std::string& relative, std::string* parent, std::string* leaf) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= relative.size()) {
    const size_t slash = relative.find('/', start);
    const std::string part = relative.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    if (!part.empty() && part != ".") parts.push_back(part);
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  if (parts.empty() || parts.back() == "..") return false;
  *leaf = parts.back();
  parts.pop_back();
  parent->clear();
  for (const std::string& p : parts) {
    if (!parent->empty()) *parent += '/';
    *parent += p;
  }
  return true;
}

std::string join(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  if (name.empty()) return folder;
  return folder.back() == '/' ? folder + name : folder + "/" + name;
}

std::string temporaryName() {
  char buf[64];
  std::snprintf(buf, sizeof buf, ".skerrow-%ld-%" PRIu64 ".tmp", static_cast<long>(::getpid()),
                gTemporaryCounter.fetch_add(1));
  return buf;
}

std::vector<char>& copyBuffer() {
  thread_local std::vector<char> buffer(1 << 20);
  return buffer;
}

// Copies the rest of `in` to `out`: a clone, else copy_file_range, else
// read/write.  With a cancel flag, the flag is read before every chunk.
int copyData(int in, int out, bool legacy, const std::atomic<bool>* cancelled) {
  const auto stop = [cancelled] { return cancelled && cancelled->load(std::memory_order_relaxed); };
  if (stop()) return ECANCELED;
  if (!legacy) {
    if (::ioctl(out, FICLONE, in) == 0) return 0;
    bool copiedSome = false;
    const size_t chunk = cancelled ? CopyOptions::kCancelChunkBytes : size_t{1} << 30;
    while (true) {
      if (stop()) return ECANCELED;
      const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, chunk, 0);
      if (n > 0) {
        copiedSome = true;
        continue;
      }
      if (n == 0) return 0;
      if (errno == EINTR) continue;
      if (!copiedSome && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP ||
                          errno == ENOTSUP || errno == EBADF))
        break;  // not offered here: read and write instead
      return errno;
    }
  }
  std::vector<char>& buffer = copyBuffer();
  while (true) {
    if (stop()) return ECANCELED;
    const ssize_t n = ::read(in, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) return 0;
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = ::write(out, buffer.data() + done, static_cast<size_t>(n - done));
      if (w < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      done += w;
    }
  }
}

void copyExtendedAttributes(int in, int out) {
  ssize_t size = ::flistxattr(in, nullptr, 0);
  if (size <= 0) return;
  std::vector<char> names(static_cast<size_t>(size));
  size = ::flistxattr(in, names.data(), names.size());
  if (size <= 0) return;
  std::vector<char> value;
  for (size_t start = 0; start < static_cast<size_t>(size);) {
    const char* name = names.data() + start;
    const size_t length = ::strnlen(name, static_cast<size_t>(size) - start);
    start += length + 1;
    if (length == 0) continue;
    const ssize_t valueSize = ::fgetxattr(in, name, nullptr, 0);
    if (valueSize < 0) continue;
    value.resize(static_cast<size_t>(valueSize));
    const ssize_t got = ::fgetxattr(in, name, value.data(), value.size());
    if (got < 0) continue;
    ::fsetxattr(out, name, value.data(), static_cast<size_t>(got), 0);  // the destination may refuse some: ignored
  }
}

void setStoredCreationTime(int out, const FileAttributes& source) {
  if (source.creationSource == FileAttributes::CreationSource::None) return;
  char text[48];
  const int n = std::snprintf(text, sizeof text, "%lld.%09u", static_cast<long long>(source.creationTime.seconds),
                              source.creationTime.nanoseconds);
  ::fsetxattr(out, ExtendedAttributes::systemName(kCreationDateAttribute).c_str(), text, static_cast<size_t>(n), 0);
}

struct timespec toTimespec(const FileTime& t) {
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(t.seconds);
  ts.tv_nsec = static_cast<long>(t.nanoseconds);
  return ts;
}

class Copy {
 public:
  Copy(const CopyOptions& options, bool legacy, FileError* error) : options_(options), legacy_(legacy), error_(error) {}

  bool fail(int code, const std::string& path, const char* action) {
    if (error_ && !failed_) *error_ = posixError(code, path, action);
    failed_ = true;
    return false;
  }

  // Copies the entry `name` of the folder `from` (on device `device`) to
  // `to`/`finalName`, through a temporary name.
  bool item(int from, const std::string& name, const std::string& sourcePath, uint64_t device, int to,
            const std::string& finalName, const std::string& destinationPath, bool replace) {
    FileAttributes a;
    if (!statAt(from, name.c_str(), &a, /*preferStoredCreationDate=*/true))
      return fail(errno, sourcePath, "Unable to read the attributes of");
    if (a.device != device) return fail(EXDEV, sourcePath, "Unable to copy an item on another file system");
    const std::string temp = temporaryName();
    bool ok = false;
    switch (a.type) {
      case FileAttributes::Type::Regular: ok = regularFile(from, name, sourcePath, a, to, temp, destinationPath); break;
      case FileAttributes::Type::SymbolicLink: ok = symbolicLink(from, name, sourcePath, a, to, temp, destinationPath); break;
      case FileAttributes::Type::Directory: ok = directory(from, name, sourcePath, a, to, temp, destinationPath); break;
      default: return fail(EINVAL, sourcePath, "Unable to copy an item that is not a file, folder or link");
    }
    if (ok) ok = rename(to, temp, finalName, destinationPath, replace);
    if (!ok) FileManager::removeItemAt(to, temp);
    return ok;
  }

 private:
  bool regularFile(int from, const std::string& name, const std::string& sourcePath, const FileAttributes& a, int to,
                   const std::string& temp, const std::string& destinationPath) {
    // O_NOATIME: a backup does not make the user's files look recently read
    // (allowed to the owner and to root; others read without it).
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    FileDescriptor in(::openat(from, name.c_str(), flags | O_NOATIME));
    if (!in && errno == EPERM) in.reset(::openat(from, name.c_str(), flags));
    if (!in) return fail(errno, sourcePath, "Unable to open");
    struct stat st;
    if (::fstat(in.get(), &st) != 0) return fail(errno, sourcePath, "Unable to read the attributes of");
    // The item must still be the regular file that was examined, on the same device.
    if (!S_ISREG(st.st_mode) || st.st_dev != a.device || st.st_ino != a.inode)
      return fail(ESTALE, sourcePath, "Unable to copy an item that changed while it was copied");
    ::fcntl(in.get(), F_SETFL, ::fcntl(in.get(), F_GETFL) & ~O_NONBLOCK);
    FileDescriptor out(::openat(to, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out) return fail(errno, destinationPath, "Unable to create");
    if (const int code = copyData(in.get(), out.get(), legacy_, options_.cancelled)) return fail(code, destinationPath, "Unable to copy to");
    metadata(in.get(), out.get(), a);
    if (options_.syncData && ::fdatasync(out.get()) != 0) return fail(errno, destinationPath, "Unable to write");
    if (options_.setModificationDate) times(out.get(), a);
    if (::close(out.release()) != 0) return fail(errno, destinationPath, "Unable to write");
    return true;
  }

  bool symbolicLink(int from, const std::string& name, const std::string& sourcePath, const FileAttributes& a, int to,
                    const std::string& temp, const std::string& destinationPath) {
    std::vector<char> target(a.size + 2 > 4096 ? a.size + 2 : 4096);
    const ssize_t n = ::readlinkat(from, name.c_str(), target.data(), target.size() - 1);
    if (n < 0) return fail(errno, sourcePath, "Unable to read the link");
    target[static_cast<size_t>(n)] = '\0';
    if (::symlinkat(target.data(), to, temp.c_str()) != 0) return fail(errno, destinationPath, "Unable to create the link");
    ::fchownat(to, temp.c_str(), a.uid, a.gid, AT_SYMLINK_NOFOLLOW);
    if (options_.setModificationDate) {
      const struct timespec ts[2] = {toTimespec(a.accessTime), toTimespec(a.modificationTime)};
      ::utimensat(to, temp.c_str(), ts, AT_SYMLINK_NOFOLLOW);
    }
    return true;
  }

  bool directory(int from, const std::string& name, const std::string& sourcePath, const FileAttributes& a, int to,
                 const std::string& temp, const std::string& destinationPath) {
    FileDescriptor in(::openat(from, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!in) return fail(errno, sourcePath, "Unable to open");
    struct stat st;
    if (::fstat(in.get(), &st) != 0 || st.st_dev != a.device || st.st_ino != a.inode)
      return fail(ESTALE, sourcePath, "Unable to copy an item that changed while it was copied");
    if (::mkdirat(to, temp.c_str(), 0700) != 0) return fail(errno, destinationPath, "Unable to create directory");
    FileDescriptor out(::openat(to, temp.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!out) return fail(errno, destinationPath, "Unable to open");
    const auto names = listEntries(in.get());
    if (!names) return fail(errno, sourcePath, "Unable to list");
    for (const std::string& child : *names) {
      FileAttributes ca;
      if (!statAt(in.get(), child.c_str(), &ca, false)) continue;  // vanished meanwhile
      if (ca.type == FileAttributes::Type::Other) continue;       // pipes, sockets, devices are not copied
      if (!item(in.get(), child, join(sourcePath, child), a.device, out.get(), child, join(destinationPath, child),
                false))
        return false;
    }
    metadata(in.get(), out.get(), a);
    if (options_.setModificationDate) times(out.get(), a);
    return true;
  }

  void metadata(int in, int out, const FileAttributes& a) {
    // Owner before mode: changing the owner clears set-id bits.
    ::fchown(out, a.uid, a.gid);
    ::fchmod(out, a.mode & 07777);
    copyExtendedAttributes(in, out);
    if (options_.setCreationDate) setStoredCreationTime(out, a);
  }

  void times(int out, const FileAttributes& a) {
    const struct timespec ts[2] = {toTimespec(a.accessTime), toTimespec(a.modificationTime)};
    ::futimens(out, ts);
  }

  bool rename(int dir, const std::string& temp, const std::string& finalName, const std::string& destinationPath,
              bool replace) {
    if (replace) {
      if (::renameat(dir, temp.c_str(), dir, finalName.c_str()) == 0) return true;
      if (errno != EISDIR && errno != ENOTEMPTY && errno != EEXIST && errno != ENOTDIR)
        return fail(errno, destinationPath, "Unable to rename the copy to");
      FileManager::removeItemAt(dir, finalName);
      if (::renameat(dir, temp.c_str(), dir, finalName.c_str()) == 0) return true;
      return fail(errno, destinationPath, "Unable to rename the copy to");
    }
    if (::renameat2(dir, temp.c_str(), dir, finalName.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return fail(errno, destinationPath, "Unable to rename the copy to");
    // The file system cannot rename without replacing: test first.
    struct stat st;
    if (::fstatat(dir, finalName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0)
      return fail(EEXIST, destinationPath, "Unable to rename the copy to");
    if (::renameat(dir, temp.c_str(), dir, finalName.c_str()) == 0) return true;
    return fail(errno, destinationPath, "Unable to rename the copy to");
  }

  const CopyOptions& options_;
  bool legacy_;
  FileError* error_;
  bool failed_ = false;
};

void probeSystemVersion() {
  struct utsname u;
  int major = 0, minor = 0;
  if (::uname(&u) == 0) std::sscanf(u.release, "%d.%d", &major, &minor);
  gUseLegacyCopy.store(major == 10 && minor <= 5);
}

}  // namespace

void FileCopier::setVersionProbePending(bool pending) { gVersionProbePending.store(pending); }
bool FileCopier::versionProbePending() { return gVersionProbePending.load(); }
void FileCopier::setUseLegacyCopy(bool legacy) { gUseLegacyCopy.store(legacy); }
bool FileCopier::useLegacyCopy() { return gUseLegacyCopy.load(); }

bool FileCopier::copyBeneath(const std::string& sourceRoot, const std::string& sourceRelative,
                             const std::string& destinationRoot, const std::string& destinationRelative,
                             const CopyOptions& options, FileError* error, std::optional<uint64_t> destinationDevice) {
  if (gVersionProbePending.exchange(false)) probeSystemVersion();
  const bool legacy = gUseLegacyCopy.load();
  FileError local;
  FileError* report = error ? error : &local;
  Copy copy(options, legacy, report);

  const std::string sourcePath = join(sourceRoot, sourceRelative);
  const std::string destinationPath = join(destinationRoot, destinationRelative);
  std::string sourceParent, sourceLeaf, destinationParent, destinationLeaf;
  if (!splitRelative(sourceRelative, &sourceParent, &sourceLeaf))
    return copy.fail(EINVAL, sourcePath, "Unable to copy");
  if (!splitRelative(destinationRelative, &destinationParent, &destinationLeaf))
    return copy.fail(EINVAL, destinationPath, "Unable to copy to");

  FileDescriptor sourceRootFd(::open(sourceRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!sourceRootFd) return copy.fail(errno, sourceRoot, "Unable to open");
  FileDescriptor from(openBeneath(sourceRootFd.get(), sourceParent, O_PATH | O_DIRECTORY));
  if (!from) return copy.fail(errno, join(sourceRoot, sourceParent), "Unable to open");
  struct stat fromStat;
  if (::fstat(from.get(), &fromStat) != 0) return copy.fail(errno, join(sourceRoot, sourceParent), "Unable to open");

  FileDescriptor destinationRootFd(::open(destinationRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!destinationRootFd) return copy.fail(errno, destinationRoot, "Unable to open");
  if (destinationDevice) {
    struct stat rootStat;
    if (::fstat(destinationRootFd.get(), &rootStat) != 0 || rootStat.st_dev != *destinationDevice)
      return copy.fail(ENODEV, destinationRoot, "Unable to copy: the backup volume is no longer mounted at");
  }
  FileDescriptor to(openBeneath(destinationRootFd.get(), destinationParent, O_RDONLY | O_DIRECTORY));
  if (!to) return copy.fail(errno, join(destinationRoot, destinationParent), "Unable to open");

  bool ok;
  if (options.deleteDestinationFirst) FileManager::removeItemAt(to.get(), destinationLeaf);
  ok = copy.item(from.get(), sourceLeaf, sourcePath, fromStat.st_dev, to.get(), destinationLeaf, destinationPath,
                 options.deleteDestinationFirst);
  if (!ok && options.deleteDestinationIfError) FileManager::removeItemAt(to.get(), destinationLeaf);
  if (legacy && error) *error = FileError{kOSStatusErrorDomain, 0, "", ""};
  return ok;
}

bool FileCopier::createDirectoryBeneath(const std::string& root, const std::string& relative,
                                        const FileAttributes* like, FileError* error,
                                        std::optional<uint64_t> rootDevice) {
  FileError local;
  FileError& report = error ? *error : local;
  const std::string path = join(root, relative);
  std::string parent, leaf;
  if (!splitRelative(relative, &parent, &leaf)) {
    report = posixError(EINVAL, path, "Unable to create directory");
    return false;
  }
  FileDescriptor rootFd(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!rootFd) {
    report = posixError(errno, root, "Unable to open");
    return false;
  }
  if (rootDevice) {
    struct stat rootStat;
    if (::fstat(rootFd.get(), &rootStat) != 0 || rootStat.st_dev != *rootDevice) {
      report = posixError(ENODEV, root, "Unable to create directory: the backup volume is no longer mounted at");
      return false;
    }
  }
  FileDescriptor dir(openBeneath(rootFd.get(), parent, O_RDONLY | O_DIRECTORY));
  if (!dir) {
    report = posixError(errno, join(root, parent), "Unable to open");
    return false;
  }
  if (::mkdirat(dir.get(), leaf.c_str(), like ? 0700 : 0755) != 0) {
    report = posixError(errno, path, "Unable to create directory");
    return false;
  }
  if (like) {
    FileDescriptor made(::openat(dir.get(), leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // Owner before mode: changing the owner clears set-id bits.
    if (made) {
      ::fchown(made.get(), like->uid, like->gid);
      ::fchmod(made.get(), like->mode & 07777);
    }
  }
  return true;
}

bool FileCopier::removeItemBeneath(const std::string& root, const std::string& relative) {
  std::string parent, leaf;
  if (!splitRelative(relative, &parent, &leaf)) return false;
  FileDescriptor rootFd(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!rootFd) return false;
  FileDescriptor dir(openBeneath(rootFd.get(), parent, O_RDONLY | O_DIRECTORY));
  if (!dir) return errno == ENOENT;
  return FileManager::removeItemAt(dir.get(), leaf);
}

bool FileCopier::
    copyPath_toPath_setCreationDateFromSourcePath_setModifcationDateFromSourcePath_deleteDestinationFileFirst_deleteDestinationFileIfError_error(
        const std::string& source, const std::string& destination, bool setCreationDate, bool setModificationDate,
        bool deleteFirst, bool deleteIfError, FileError* error) {
  auto split = [](const std::string& path, std::string* parent, std::string* leaf) {
    size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') --end;
    const auto slash = path.find_last_of('/', end == 0 ? 0 : end - 1);
    if (slash == std::string::npos) {
      parent->assign(".");
      leaf->assign(path, 0, end);
    } else {
      parent->assign(path, 0, slash == 0 ? 1 : slash);
      leaf->assign(path, slash + 1, end - slash - 1);
    }
  };
  std::string sourceParent, sourceLeaf, destinationParent, destinationLeaf;
  split(source, &sourceParent, &sourceLeaf);
  split(destination, &destinationParent, &destinationLeaf);
  CopyOptions options;
  options.setCreationDate = setCreationDate;
  options.setModificationDate = setModificationDate;
  options.deleteDestinationFirst = deleteFirst;
  options.deleteDestinationIfError = deleteIfError;
  return copyBeneath(sourceParent, sourceLeaf, destinationParent, destinationLeaf, options, error);
}

}  // namespace platform
