// An item's attributes as the file trees keep them: a plain value record.
#pragma once

#include <cstdint>

#include "platform/FileAttributes.h"

// Item types of the records.
inline constexpr int32_t kQSFSTypeOther = 0;
inline constexpr int32_t kQSFSTypeFolder = 1;
inline constexpr int32_t kQSFSTypeFile = 2;  // a regular file or a symbolic link

struct QSFSFileAttributes {
  int64_t size = 0;                    // logical size in bytes
  int32_t type = kQSFSTypeOther;
  bool fileTypeIsARegularFile = false;
  // Whether the creation date is the item's own record of it: false for a
  // stored copy read without the creation-date attribute (one converted from
  // an older backup), whose birth time says when the copy was made.  (Kept
  // beside the other flags: every node and stored copy holds a record, and
  // this order makes it 32 bytes, not 40.)
  bool creationDateKnown = true;
  double creationDate = 0;             // seconds since 2001-01-01 00:00:00 UTC
  double modificationDate = 0;

  bool operator==(const QSFSFileAttributes&) const = default;

  // The record of an item read by the file manager: the full size of a file
  // (0 for a folder), its type code and its dates.
  static QSFSFileAttributes fromFileAttributes(const platform::FileAttributes& a) {
    QSFSFileAttributes r;
    r.type = a.isDirectory() ? kQSFSTypeFolder : (a.isRegularFile() || a.isSymbolicLink()) ? kQSFSTypeFile : kQSFSTypeOther;
    r.size = a.isDirectory() ? 0 : static_cast<int64_t>(a.size);
    r.fileTypeIsARegularFile = a.isRegularFile();
    r.creationDate = a.creationTime.sinceReferenceDate();
    r.modificationDate = a.modificationTime.sinceReferenceDate();
    return r;
  }

  // The record of a stored copy read with its creation-date attribute
  // preferred: without the attribute its creation date is not known.
  static QSFSFileAttributes fromStoredCopyAttributes(const platform::FileAttributes& a) {
    QSFSFileAttributes r = fromFileAttributes(a);
    r.creationDateKnown = a.isSymbolicLink() || a.creationSource == platform::FileAttributes::CreationSource::StoredAttribute;
    return r;
  }
};
static_assert(sizeof(QSFSFileAttributes) == 32, "every tree node and stored copy holds one: keep it small");
