// The fixed black list, the same for every user: file names that are never
// backed up (by whole name or by extension) and paths below a home folder
// that are never entered.  Built once from the settings file's "QSBlackList"
// ("share/skerrow/Info.plist" beside the executable's folder: the installed
// tree and the build tree both have it), and read from any thread after that.
//
// With extensions e1, e2 and specific files f1, f2 the file-name pattern is
// ((.+\.)((e1)|(e2)))|(((f1)|(f2))); with suffixes s1, s2 the suffix pattern
// is ((s1)|(s2)).  Both are whole-string matches ignoring case.  An item that
// does not compile is left out and logged; a missing list counts as empty.
#pragma once

#include <memory>
#include <string>

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
  // Where the settings file is looked for.
  static std::string settingsFilePath();
};
