// One folder of a volume, opened beneath the volume's root (see VolumeTree),
// and the work done on its entries by name.
//
//  - The folder is held by its descriptor: its entries are examined, opened,
//    renamed and written relative to it, so renaming or replacing folders
//    above it meanwhile changes nothing for it.
//  - Entries are never followed when they are symbolic links: attributes
//    are the link's own, a link never opens as a folder, times are set on
//    the link itself, files are opened with O_NOFOLLOW.
//  - Names are single path components; a name with "/" or that is "." or
//    ".." is refused.
//  - Failures answer false, nothing or an errno; nothing raises.  Not
//    thread-safe: one thread works with one object at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileAttributes.h"
#include "platform/FileDescriptor.h"

namespace platform {

class VolumeFolder {
 public:
  explicit VolumeFolder(FileDescriptor fd) : fd_(std::move(fd)) {}

  // Whether `name` can name an entry: not empty, no "/", not "." or "..".
  static bool isEntryName(const std::string& name);

  // An entry as the folder lists it, with the type the listing gives
  // (Unknown where the file system does not say; ask attributesOf then).
  struct Entry {
    enum class Type : uint8_t { Directory, Regular, SymbolicLink, Other, Unknown };
    std::string name;
    Type type = Type::Unknown;
  };
  // The entries ("." and ".." left out), from the start of the folder each
  // time, in no particular order; nothing when the folder cannot be listed.
  std::optional<std::vector<Entry>> entriesWithTypes() const;
  // Their names only.
  std::optional<std::vector<std::string>> entries() const;
  // The type of an entry: the listing's, else from its attributes (Other when it cannot be read).
  Entry::Type typeOf(const Entry& entry) const;
  // Attributes of the entry (a link's own); false when it is missing.
  bool attributesOf(const std::string& name, FileAttributes* attributes) const;
  // The attributes of this folder.
  bool attributes(FileAttributes* attributes) const;
  // The subfolder `name`; nothing unless it is a real folder (not a link).
  std::unique_ptr<VolumeFolder> openChild(const std::string& name) const;
  // Makes the subfolder `name` with `mode` and, when given, owner and group;
  // a folder already there is kept as it is.  False when something else
  // stands there or the folder cannot be made.
  bool makeChild(const std::string& name, uint32_t mode, std::optional<uint32_t> uid = std::nullopt,
                 std::optional<uint32_t> gid = std::nullopt);

  // Renames the entry `name` to `newName` in `destination` (a folder of the
  // same file system).  Without `replace` an entry at the destination is
  // never replaced: the answer is then EEXIST.  Answers 0 or the errno.
  int moveEntry(const std::string& name, const VolumeFolder& destination, const std::string& newName, bool replace);
  // Sets the entry's modification time (its access time is kept).
  bool setModificationTime(const std::string& name, const FileTime& time);
  // Removes a file, a link or an empty folder; false otherwise.
  bool removeEntry(const std::string& name);

  // The whole contents of the regular file `name`, at most `maxSize` bytes;
  // nothing when it is missing, not a regular file, larger, or unreadable.
  std::optional<std::string> readFile(const std::string& name, size_t maxSize) const;
  // Replaces the file `name` atomically: the bytes go to a temporary file in
  // this folder (".<name>.<random>"), which is flushed, renamed over `name`,
  // and the folder is flushed; after a crash `name` holds the old or the new
  // contents, never a mixture.  A new file gets `mode`.
  bool writeFileAtomically(const std::string& name, const std::string& bytes, uint32_t mode = 0644);
  // Whether `name` is the name of a temporary file left by an interrupted
  // writeFileAtomically of `target`.
  static bool isTemporaryNameOf(const std::string& name, const std::string& target);
  // Flushes the folder's entries to the disk.
  bool synchronize() const;

  int fd() const { return fd_.get(); }

 private:
  FileDescriptor fd_;
};

}  // namespace platform
