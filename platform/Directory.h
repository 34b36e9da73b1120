// An open folder, read entry by entry, whose entries are examined and opened
// relative to the folder's descriptor.  Walks built on it never follow a
// symbolic link (entries are examined with AT_SYMLINK_NOFOLLOW and opened
// with O_NOFOLLOW) and keep working on the folder they opened even if its
// path is changed meanwhile.
#pragma once

#include <memory>
#include <optional>
#include <vector>
#include <string>

#include "platform/FileAttributes.h"
#include "platform/FileDescriptor.h"

struct __dirstream;

namespace platform {

class Directory {
 public:
  // Opens the folder at `path` (links in the path are followed: the caller
  // trusts it).  Nothing when it cannot be opened as a folder.
  static std::unique_ptr<Directory> open(const std::string& path);

  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // The subfolder `name`, never through a symbolic link; nothing otherwise.
  std::unique_ptr<Directory> openChild(const std::string& name) const;
  // The folder `relative` below the trusted folder `root`, opened one
  // component at a time with openChild (no link and no ".." is followed);
  // nothing when a component is missing or not a folder.
  static std::unique_ptr<Directory> openBeneath(const std::string& root, const std::string& relative);
  // Renames the entry `from` of this folder to `to` in the same folder
  // (an existing `to` is replaced); false with errno set on failure.
  bool renameEntry(const std::string& from, const std::string& to) const;

  // The next entry's name ("." and ".." skipped); false at the end or on an error.
  bool readEntry(std::string* name);

  // Attributes of the entry `name` (not followed if it is a link).  With
  // `preferStoredCreationDate`, a creation date stored on a copy wins over the birth time.
  bool attributesOf(const std::string& name, FileAttributes* attributes, bool preferStoredCreationDate = false) const;
  // Replaces the creation date of `attributes` (read from the entry `name`
  // without its stored date) with the date stored on the copy, when it has
  // one; links have none.
  void readStoredCreationDateOf(const std::string& name, FileAttributes* attributes) const;
  // Attributes of this folder itself.
  bool attributes(FileAttributes* attributes) const;

  int fd() const { return fd_.get(); }

 private:
  explicit Directory(FileDescriptor fd);
  FileDescriptor fd_;
  __dirstream* stream_ = nullptr;
};

// Fills `attributes` for `name` relative to `dirfd` (AT_FDCWD for a path),
// without following a final link.  Shared by the file manager and the copier.
bool statAt(int dirfd, const char* name, FileAttributes* attributes, bool preferStoredCreationDate);

// What Directory::readStoredCreationDateOf does, for `name` relative to `dirfd`.
void readStoredCreationDate(int dirfd, const char* name, FileAttributes* attributes);

// The entry names of the folder `dirfd` ("." and ".." left out), read through
// a duplicate descriptor; nothing when it cannot be listed.
std::optional<std::vector<std::string>> listEntries(int dirfd);

}  // namespace platform
