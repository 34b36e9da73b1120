#include "Engine/files/FSSourceTraversal.h"

#include "Engine/files/QSBlackList.h"
#include "Engine/files/QSFSNodeStack.h"
#include "Engine/files/QSPathFilter.h"

void FSSourceTraversal::recurseAtUserHome_withExclusionPredicate_visitor(
    const std::string& homeDirPath, std::shared_ptr<const platform::RegexPredicate> predicate, FSVisitor& visitor) {
  homeDirPath_ = homeDirPath;
  exclusionPredicate_ = std::move(predicate);
  kickOffRecursionWithPath_visitor(homeDirPath, visitor);
  homeDirPath_.clear();
  exclusionPredicate_.reset();
}

bool FSSourceTraversal::_proceedForPath_attrs(const std::string& path, const std::string& name,
                                              const platform::FileAttributes& attributes) const {
  const std::string suffix = path.size() > homeDirPath_.size() ? path.substr(homeDirPath_.size()) : std::string();
  if (exclusionPredicate_ && exclusionPredicate_->evaluateWithObject(suffix)) return false;
  if (QSNameIs(name, "Database")) return !QSPathFilter::isLiveMailDatabase(&attributes);
  if (QSBlackList::isFilenameBlacklisted(name)) return false;
  return !QSBlackList::isPathSuffixBlacklisted(suffix);
}

void FSSourceTraversal::_recurse(platform::Directory* parent, const std::string& name, const std::string& path) {
  if (shouldStop()) return;
  platform::FileAttributes attributes;
  if (!attributesOf(parent, name, path, &attributes, false)) return;
  const std::string fileName = parent ? name : path.substr(path.find_last_of('/') + 1);
  if (!_proceedForPath_attrs(path, fileName, attributes)) return;
  if (attributes.isDirectory()) {
    if (visitor_->startVisitAtPath_attributes(path, attributes)) {
      if (auto folder = openFolder(parent, name, path)) {
        std::string entry;
        while (!shouldStop() && folder->readEntry(&entry)) _recurse(folder.get(), entry, join(path, entry));
      }
    }
    visitor_->finishVisitAtPath_attributes(path, attributes);
  } else if (attributes.isRegularFile() || attributes.isSymbolicLink()) {
    visitor_->startVisitAtPath_attributes(path, attributes);
    visitor_->finishVisitAtPath_attributes(path, attributes);
  }
}
