// The files of one mounted volume, reached only beneath its root.
//
// Work that a root daemon does on a volume a user may write to (a backup
// disk) must not be redirected by links the user plants: every path given
// here is relative to the root and resolved with openat2(RESOLVE_BENEATH |
// RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV), so it never leaves the volume,
// never follows a symbolic link and never crosses into another mount.
//
// The tree also answers questions about the volume itself: whether it can
// be written, its free space, and whether the mount the root was opened on
// is still the one at the root's path (a volume unmounted, even lazily, or
// mounted again, shows a different mount there).
//
// Failures answer false, nothing or an errno; nothing raises.  One thread
// at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/FileAttributes.h"
#include "platform/VolumeFolder.h"

namespace platform {

class VolumeTree {
 public:
  // Opens the root folder at `rootPath` (a final link is not followed);
  // nothing when it is not a folder.
  static std::unique_ptr<VolumeTree> open(const std::string& rootPath);

  const std::string& rootPath() const { return rootPath_; }

  // The folder at `relative` ("" for the root); nothing unless every
  // component is a real folder beneath the root.
  std::unique_ptr<VolumeFolder> openFolder(const std::string& relative) const;
  // Attributes of the item at `relative` (a link's own); false when missing.
  bool attributesAt(const std::string& relative, FileAttributes* attributes) const;
  bool isFolderAt(const std::string& relative) const;
  // Renames within the volume; without `replace` nothing at `to` is
  // replaced (EEXIST).  Answers 0 or the errno.
  int rename(const std::string& from, const std::string& to, bool replace);
  // Moves the item into the volume's trash folder for the calling user,
  // "<root>/.Trash-<uid>", the per-volume trash desktops look in:
  // the item goes to "files/" under a name not taken there, beside an
  // "info/<name>.trashinfo" record of its path and the date.  It is renamed,
  // never copied; false (with the reason) when it cannot be.
  bool moveToTrash(const std::string& relative, std::string* why = nullptr);

  // The mount identifier (statx STATX_MNT_ID) of the root as opened, and of
  // whatever is at the root's path now.
  std::optional<uint64_t> openedMountIdentifier() const;
  std::optional<uint64_t> currentMountIdentifier() const;
  // Whether the mount at the root's path is still the one opened.
  bool isStillMounted() const;
  // Whether the volume can be written (not mounted read-only, root folder
  // writable by the caller); otherwise false with the reason.
  bool isWritable(std::string* why = nullptr) const;
  // Free bytes for unprivileged writers, and the fundamental block size.
  std::optional<uint64_t> freeBytes() const;
  uint64_t blockSize() const;
  // Flushes the whole file system (syncfs).
  bool synchronize() const;

  // An exclusive advisory lock on the volume's root folder (flock), held
  // until the tree is closed: one holder at a time per file system, in this
  // process or another.  Busy while someone else holds it; Unsupported
  // where the file system keeps no such locks.
  enum class Lock { Held, Busy, Unsupported };
  Lock tryLock();

 private:
  VolumeTree(std::string rootPath, FileDescriptor root) : rootPath_(std::move(rootPath)), root_(std::move(root)) {}
  std::string rootPath_;
  FileDescriptor root_;
};

}  // namespace platform
