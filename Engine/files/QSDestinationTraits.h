// What a backup destination keeps of a copy, and the unchanged-file test
// that follows from it.
//
// A stored copy is the same as its source when the sizes are equal and the
// creation and modification dates are equal.  On a destination that keeps
// coarser times than the source (exFAT 10 ms, FAT 2 s) the modification
// dates count as equal when they differ by less than that granularity, and
// on a destination that cannot keep the creation-date attribute the creation
// dates count as equal: otherwise such a destination would be copied to
// again and again although nothing changed.  The same holds for a stored
// copy that carries no creation-date attribute (one converted from an older
// backup product's folders).  For the same reason a symbolic
// link (which cannot carry the creation-date attribute) is compared by size
// and modification date only.
#pragma once

#include <optional>
#include <string>

#include "Engine/files/QSFSFileAttributes.h"

struct QSDestinationTraits {
  double timeGranularity = 0;      // seconds; 0: times are kept exactly
  bool keepsCreationDate = true;

  // The traits of the file system holding `folder` (exact traits when it cannot be probed).
  static QSDestinationTraits probe(const std::string& folder);
};

// Whether `stored` (the newest stored version) still matches `source`.
bool QSIsUnchangedCopy(const QSFSFileAttributes& source, const QSFSFileAttributes& stored,
                       const QSDestinationTraits& traits);
