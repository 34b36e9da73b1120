// The fixed black list, the same for every user: file names that are never
// backed up (by whole name or by extension) and paths below a home folder
// that are never entered.  Built once from the "QSBlackList" of the first
// settings file that reads as a dictionary: the administrator's
// "<sysconfdir>/skerrow/Info.plist" (/etc/skerrow/Info.plist when installed
// in /usr; below $SKERROW_ROOT when that is set), then the shipped defaults
// "share/skerrow/Info.plist" beside the executable's folder (the installed
// tree and the build tree both have them).  Read from any thread after that.
//
// With extensions e1, e2 and specific files f1, f2 the file-name pattern is
// ((.+\.)((e1)|(e2)))|(((f1)|(f2))); with suffixes s1, s2 the suffix pattern
// is ((s1)|(s2)).  Both are whole-string matches ignoring case.  An item that
// does not compile is left out and logged; a missing list counts as empty.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/RegexPredicate.h"
#include "platform/Value.h"

class QSBlackList {
 public:
  // Builds the list from the settings file, once; later calls do nothing.
  static void initialize();
  // Builds (or rebuilds) the list from an information dictionary holding "QSBlackList".
  static void initializeWithInfoDictionary(const platform::Dictionary& info);

  // `fileBlacklister` on a file name (last path component).
  static bool isFilenameBlacklisted(const std::string& fileName);
  // `pathSuffixBlacklister` on a path relative to the home folder.
  static bool isPathSuffixBlacklisted(const std::string& pathSuffix);

  // The same two questions asked of the full expressions, without the exact
  // shortcuts the two above take for plain ASCII text (for tests).
  static bool isFilenameBlacklistedByExpression(const std::string& fileName);
  static bool isPathSuffixBlacklistedByExpression(const std::string& pathSuffix);

  static std::string fileNamePattern();
  static std::string pathSuffixPattern();
  // Builds the list from the first of `paths` that reads as a dictionary
  // (an empty list when none does); answers that path, or "" when none.
  // A file that exists but does not read is logged and passed over.
  static std::string initializeFromSettingsFiles(const std::vector<std::string>& paths);

  // The administrator's settings file, read first.
  static std::string administratorSettingsFilePath();
  // The shipped defaults, read when the administrator's file is missing or unreadable.
  static std::string defaultSettingsFilePath();
};
