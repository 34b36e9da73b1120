#include "tools/skerrowctl/VersionBrowser.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Engine/files/QSFSVersion.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSVersionName.h"
#include "platform/Directory.h"
#include "platform/FileCopier.h"
#include "platform/FileDescriptor.h"
#include "platform/FileManager.h"
#include "platform/Path.h"
#include "platform/UnicodeText.h"
#include "tools/skerrowctl/RenameIntoPlace.h"

namespace skerrowctl {
namespace {

std::atomic<uint64_t> gTemporaryCounter{0};

std::string join(const std::string& folder, const std::string& name) {
  return platform::appendingPathComponent(folder, name);
}

void fail(VersionError* error, VersionErrorKind kind, std::string message) {
  *error = VersionError{kind, std::move(message)};
}

void failWithSystemError(VersionError* error, int code, const std::string& path, const std::string& action) {
  fail(error, VersionErrorKind::IOError, platform::posixError(code, path, action).localizedFailureReason());
}

std::string numberText(uint64_t n) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%" PRIu64, n);
  return buf;
}

// The folder `relative` below `root` ("" for `root` itself), reached without
// crossing a symbolic link or a mount point and without leaving `root`.
int openBeneath(int root, const std::string& relative, int flags) {
  struct open_how how;
  std::memset(&how, 0, sizeof how);
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  const char* path = relative.empty() ? "." : relative.c_str();
  // RESOLVE_BENEATH answers EAGAIN when a rename races with the lookup.
  for (int attempt = 0; attempt < 8; ++attempt) {
    const long fd = ::syscall(SYS_openat2, root, path, &how, sizeof how);
    if (fd >= 0 || errno != EAGAIN) return static_cast<int>(fd);
  }
  return -1;
}

// A name for the restored copy while it is incomplete: hidden, and unique
// to this process and call.
std::string temporaryName() {
  char buf[64];
  std::snprintf(buf, sizeof buf, ".skerrowctl-%ld-%" PRIu64 ".tmp", static_cast<long>(::getpid()),
                gTemporaryCounter.fetch_add(1));
  return buf;
}

std::string storedNumbers(const std::vector<StoredVersion>& versions) {
  std::string list;
  for (const StoredVersion& v : versions) {
    if (!list.empty()) list += ", ";
    list += numberText(v.index);
  }
  return list;
}

// The copy to restore: number `wanted`, or the newest.  Nothing, with the
// error set, when that number is not stored or two copies carry it.
const StoredVersion* chooseVersion(const std::vector<StoredVersion>& versions, std::optional<uint64_t> wanted,
                                   const HomeRelativePath& file, const std::string& backupFolder,
                                   VersionError* error) {
  const uint64_t index = wanted ? *wanted : versions.back().index;
  const StoredVersion* found = nullptr;
  for (const StoredVersion& v : versions) {
    if (v.index != index) continue;
    if (found) {
      fail(error, VersionErrorKind::AmbiguousVersion,
           "Version " + numberText(index) + " of " + file.path() + " is stored twice, as " + found->path + " and " +
               v.path);
      return nullptr;
    }
    found = &v;
  }
  if (!found)
    fail(error, VersionErrorKind::VersionMissing,
         "Version " + numberText(index) + " of " + file.path() + " is not stored in " + backupFolder +
             " (stored versions: " + storedNumbers(versions) + ")");
  return found;
}

}  // namespace

VersionBrowser::VersionBrowser(std::string backupFolder, std::string home)
    : backupFolder_(std::move(backupFolder)), home_(std::move(home)) {}

std::string VersionBrowser::backupFolderPath(const std::string& mountPoint, const std::string& backupUID) {
  return join(join(mountPoint, kBackupDestinationDirectoryName), backupUID);
}

std::optional<HomeRelativePath> VersionBrowser::resolve(const std::string& path, VersionError* error) const {
  return HomeRelativePath::resolve(home_, path, error);
}

std::vector<StoredVersion> VersionBrowser::versions(const std::string& path, VersionError* error) const {
  VersionError local;
  VersionError* report = error ? error : &local;
  const auto file = resolve(path, report);
  if (!file) return {};
  return versionsOf(*file, report);
}

std::vector<StoredVersion> VersionBrowser::versionsOf(const HomeRelativePath& file, VersionError* error) const {
  VersionError local;
  VersionError* report = error ? error : &local;
  *report = VersionError{};
  const auto noVersions = [&] {
    fail(report, VersionErrorKind::NoStoredVersions, "No stored versions of " + file.path() + " in " + backupFolder_);
  };

  auto folder = platform::Directory::open(backupFolder_);
  if (!folder) {
    failWithSystemError(report, errno, backupFolder_, "Unable to open the backup folder");
    return {};
  }
  // One component at a time, never through a link: a folder replaced by a
  // link is not a folder of this backup and holds none of its copies.
  const auto& components = file.components();
  std::string folderPath = backupFolder_;
  for (size_t i = 0; i + 1 < components.size(); ++i) {
    folderPath = join(folderPath, components[i]);
    auto child = folder->openChild(components[i]);
    if (!child) {
      const int code = errno;
      if (code == ENOENT || code == ENOTDIR || code == ELOOP)
        noVersions();
      else
        failWithSystemError(report, code, folderPath, "Unable to open");
      return {};
    }
    folder = std::move(child);
  }

  const auto entries = platform::listEntries(folder->fd());
  if (!entries) {
    failWithSystemError(report, errno, folderPath, "Unable to list");
    return {};
  }
  const std::string wanted = platform::lowercase(file.fileName());
  std::vector<StoredVersion> found;
  for (const std::string& entry : *entries) {
    const auto parsed = QSParseFileName(entry);
    if (!parsed || platform::lowercase((*parsed)[0]) != wanted) continue;
    // The engine's own reading of the number (it refuses numbers beyond 64 bits).
    const auto version = QSFSVersion::versionWithFileName_attributes(entry, QSFSFileAttributes());
    if (!version) continue;
    platform::FileAttributes a;
    if (!folder->attributesOf(entry, &a, /*preferStoredCreationDate=*/true)) continue;  // removed meanwhile
    if (!a.isRegularFile() && !a.isSymbolicLink()) continue;
    StoredVersion v;
    v.index = version->index();
    v.size = a.size;
    v.mode = a.mode;
    v.modificationTime = a.modificationTime;
    v.accessTime = a.accessTime;
    if (a.creationSource == platform::FileAttributes::CreationSource::StoredAttribute) v.creationTime = a.creationTime;
    v.uid = a.uid;
    v.gid = a.gid;
    // When the copy was made: its own birth time on the disk.
    platform::FileAttributes own;
    if (folder->attributesOf(entry, &own, false) && own.creationSource == platform::FileAttributes::CreationSource::BirthTime)
      v.storedTime = own.creationTime;
    v.isSymbolicLink = a.isSymbolicLink();
    v.fileName = entry;
    v.path = join(folderPath, entry);
    found.push_back(std::move(v));
  }
  std::sort(found.begin(), found.end(), [](const StoredVersion& a, const StoredVersion& b) {
    return a.index != b.index ? a.index < b.index : a.fileName < b.fileName;
  });
  if (found.empty()) noVersions();
  return found;
}

bool VersionBrowser::copyStored(const std::string& backupFolder, const std::string& storedRelative,
                                const std::string& root, const std::string& folder, const std::string& name,
                                bool overwrite, const std::string& what, VersionError* error) {
  const std::string destinationPath = join(join(root, folder), name);
  // Checked first so that nothing is copied in vain; the rename checks again.
  platform::FileAttributes existing;
  if (platform::FileManager::attributesAtPath(destinationPath, &existing)) {
    if (existing.isDirectory()) {
      fail(error, VersionErrorKind::DestinationExists,
           "A folder stands at " + destinationPath + "; a restore never replaces a folder");
      return false;
    }
    if (!overwrite) {
      fail(error, VersionErrorKind::DestinationExists,
           destinationPath + " already exists; it is replaced only when overwriting is asked for");
      return false;
    }
  }
  const std::string temp = temporaryName();
  platform::CopyOptions copyOptions;
  copyOptions.setCreationDate = true;
  copyOptions.setModificationDate = true;
  copyOptions.deleteDestinationFirst = false;
  copyOptions.deleteDestinationIfError = true;
  copyOptions.syncData = true;
  platform::FileError copyError;
  if (!platform::FileCopier::copyBeneath(backupFolder, storedRelative, root, join(folder, temp), copyOptions,
                                         &copyError)) {
    fail(error, VersionErrorKind::IOError, "Unable to restore " + what + ": " + copyError.localizedFailureReason());
    return false;
  }

  platform::FileDescriptor rootFd(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  platform::FileDescriptor folderFd(rootFd ? openBeneath(rootFd.get(), folder, O_RDONLY | O_DIRECTORY) : -1);
  if (!folderFd) {
    const int code = errno;
    platform::FileCopier::removeItemBeneath(root, join(folder, temp));
    failWithSystemError(error, code, join(root, folder), "Unable to open");
    return false;
  }
  if (const int code = renameIntoPlace(folderFd.get(), temp, name, overwrite)) {
    platform::FileManager::removeItemAt(folderFd.get(), temp);
    if (code == EEXIST)
      fail(error, VersionErrorKind::DestinationExists,
           destinationPath + " already exists; it is replaced only when overwriting is asked for");
    else if (code == EISDIR || code == ENOTEMPTY)
      fail(error, VersionErrorKind::DestinationExists,
           "A folder stands at " + destinationPath + "; a restore never replaces a folder");
    else
      failWithSystemError(error, code, destinationPath, "Unable to restore " + what + " to");
    return false;
  }
  return true;
}

bool VersionBrowser::makeFoldersBeneath(const std::string& root, const std::string& relative, uint32_t mode,
                                        VersionError* error) {
  platform::FileDescriptor current(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!current) {
    failWithSystemError(error, errno, root, "Unable to open");
    return false;
  }
  std::string path = root;
  size_t start = 0;
  while (start < relative.size()) {
    size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    const std::string part = relative.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    path = join(path, part);
    int next = openBeneath(current.get(), part, O_PATH | O_DIRECTORY);
    if (next < 0 && errno == ENOENT) {
      if (::mkdirat(current.get(), part.c_str(), mode & 07777) != 0 && errno != EEXIST) {
        failWithSystemError(error, errno, path, "Unable to create the folder");
        return false;
      }
      next = openBeneath(current.get(), part, O_PATH | O_DIRECTORY);
    }
    if (next < 0) {
      failWithSystemError(error, errno, path, "Unable to open the folder");
      return false;
    }
    current = platform::FileDescriptor(next);
  }
  return true;
}

std::optional<RestoredVersion> VersionBrowser::restore(const std::string& path, const RestoreOptions& options,
                                                       VersionError* error) const {
  VersionError local;
  VersionError* report = error ? error : &local;
  const auto file = resolve(path, report);
  if (!file) return std::nullopt;
  const std::vector<StoredVersion> stored = versionsOf(*file, report);
  if (stored.empty()) return std::nullopt;
  const StoredVersion* chosen = chooseVersion(stored, options.version, *file, backupFolder_, report);
  if (!chosen) return std::nullopt;

  // Where the copy goes: the folder `folder` below the trusted `root`, under `name`.
  std::string root, folder, name;
  if (!options.destination) {
    root = home_;
    folder = file->folder();
    name = file->fileName();
  } else {
    const std::string& destination = *options.destination;
    bool isDirectory = false;
    if (destination.empty()) {
      fail(report, VersionErrorKind::InvalidPath, "No destination was given");
      return std::nullopt;
    }
    if (platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(destination, &isDirectory, true) &&
        isDirectory) {
      root = destination;
      name = file->fileName();
    } else if (destination.back() == '/') {
      failWithSystemError(report, ENOENT, destination, "No folder to restore into");
      return std::nullopt;
    } else {
      root = platform::deletingLastPathComponent(destination);
      if (root.empty()) root = ".";
      name = platform::lastPathComponent(destination);
      if (name == "." || name == "..") {
        fail(report, VersionErrorKind::InvalidPath, "\"" + destination + "\" does not name a file");
        return std::nullopt;
      }
    }
  }
  const std::string destinationPath = join(join(root, folder), name);

  if (!copyStored(backupFolder_, join(file->folder(), chosen->fileName), root, folder, name, options.overwrite,
                  "version " + numberText(chosen->index) + " of " + file->path(), report))
    return std::nullopt;
  *report = VersionError{};
  return RestoredVersion{*chosen, destinationPath};
}

}  // namespace skerrowctl
