// Admission of single changed files (continuous backup) and path
// normalisation.  The per-destination environment supplies its category
// filter and the user's exclusion predicate.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/FileAttributes.h"
#include "platform/RegexPredicate.h"

// HFS codes of the mail database that is never copied while it changes.
inline constexpr uint32_t kQSMailDatabaseCreator = 0x4F50494D;  // 'OPIM'
inline constexpr uint32_t kQSMailDatabaseType = 0x4F454442;     // 'OEDB'

class QSPathFilter {
 public:
  // Whether a changed file, given by its path below the home folder
  // ("/Documents/a.txt") and its attributes (or nothing), is to be copied:
  // its one category must be in `categoryFilter` (when one is set), the
  // exclusion predicate must not match the suffix, a file named "Database"
  // is admitted unless it is the live mail database, and otherwise the black
  // list must refuse neither the name nor the suffix.
  static bool shouldProceedForPathSuffix_withAttributes(
      const std::string& pathSuffix, const platform::FileAttributes* attributes,
      const std::shared_ptr<const std::set<std::string>>& categoryFilter,
      const std::shared_ptr<const platform::RegexPredicate>& exclusionPredicate);

  // The single category a changed file at `pathSuffix` belongs to.
  static std::string categoryForPathSuffix(const std::string& pathSuffix);

  // The path with its parent folder resolved through symbolic links and the
  // last component kept as it is (an event about a link names the link).
  // Paths of fewer than two components are returned unchanged.
  static std::string normalizedPath(const std::string& path);

  // Whether a file named "Database" with these attributes is the live mail database.
  static bool isLiveMailDatabase(const platform::FileAttributes* attributes);
};
