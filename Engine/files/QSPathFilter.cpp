#include "Engine/files/QSPathFilter.h"

#include <vector>

#include "Engine/files/QSBlackList.h"
#include "Engine/files/QSFSNodeStack.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/FileManager.h"

namespace {

std::vector<std::string> components(const std::string& path) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < path.size()) {
    const size_t slash = path.find('/', start);
    const size_t end = slash == std::string::npos ? path.size() : slash;
    if (end > start) out.push_back(path.substr(start, end - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return out;
}

}  // namespace

std::string QSPathFilter::categoryForPathSuffix(const std::string& pathSuffix) {
  const std::vector<std::string> c = components(pathSuffix);
  if (c.empty()) return kOtherCategoryIdentifier;
  if (QSNameIs(c[0], "Pictures")) return kPicturesCategoryIdentifier;
  if (QSNameIs(c[0], "Music")) return kMusicCategoryIdentifier;
  if (QSNameIs(c[0], "Movies")) return kMoviesCategoryIdentifier;
  if (QSNameIs(c[0], "Documents")) return kDocumentsCategoryIdentifier;
  if (QSNameIs(c[0], "Library") && c.size() >= 2) {
    if (QSNameIs(c[1], "Mail")) return kEmailCategoryIdentifier;
    if (QSNameIs(c[1], "Preferences") && c.size() == 3 && QSNameIs(c[2], "com.apple.mail.plist"))
      return kEmailCategoryIdentifier;
  }
  return kOtherCategoryIdentifier;
}

bool QSPathFilter::isLiveMailDatabase(const platform::FileAttributes* attributes) {
  return attributes && attributes->isRegularFile() && attributes->creatorCode == kQSMailDatabaseCreator &&
         attributes->typeCode == kQSMailDatabaseType;
}

bool QSPathFilter::shouldProceedForPathSuffix_withAttributes(
    const std::string& pathSuffix, const platform::FileAttributes* attributes,
    const std::shared_ptr<const std::set<std::string>>& categoryFilter,
    const std::shared_ptr<const platform::RegexPredicate>& exclusionPredicate) {
  if (categoryFilter && !categoryFilter->count(categoryForPathSuffix(pathSuffix))) return false;
  if (exclusionPredicate && exclusionPredicate->evaluateWithObject(pathSuffix)) return false;
  const std::vector<std::string> c = components(pathSuffix);
  const std::string last = c.empty() ? std::string() : c.back();
  if (QSNameIs(last, "Database")) return !isLiveMailDatabase(attributes);
  if (QSBlackList::isFilenameBlacklisted(last)) return false;
  return !QSBlackList::isPathSuffixBlacklisted(pathSuffix);
}

std::string QSPathFilter::normalizedPath(const std::string& path) {
  const std::vector<std::string> c = components(path);
  if (c.size() < 2) return path;
  const auto slash = path.find_last_of('/');
  const std::string parent = slash == 0 ? "/" : path.substr(0, slash);
  const std::string last = path.substr(slash + 1);
  const auto resolved = platform::FileManager::resolvingSymlinksInPath(parent);
  if (!resolved) return path;
  return *resolved == "/" ? "/" + last : *resolved + "/" + last;
}
