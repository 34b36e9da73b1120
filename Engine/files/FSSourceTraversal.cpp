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
  if (path.size() > homeDirPath_.size())
    suffix_.assign(path, homeDirPath_.size());
  else
    suffix_.clear();
  const std::string& suffix = suffix_;
  if (exclusionPredicate_ && exclusionPredicate_->evaluateWithObject(suffix)) return false;
  if (QSNameIs(name, "Database")) return !QSPathFilter::isLiveMailDatabase(&attributes);
  if (QSBlackList::isFilenameBlacklisted(name)) return false;
  return !QSBlackList::isPathSuffixBlacklisted(suffix);
}

void FSSourceTraversal::_recurse(const std::string& path) {
  if (shouldStop()) return;
  platform::FileAttributes attributes;
  if (!topAttributes(path, &attributes, false)) return;
  visit(nullptr, path.substr(path.find_last_of('/') + 1), path, attributes);
}

void FSSourceTraversal::visit(Folder* parent, const std::string& name, const std::string& path,
                              const platform::FileAttributes& attributes) {
  if (!_proceedForPath_attrs(path, name, attributes)) return;
  if (attributes.isDirectory()) {
    if (visitor_->startVisitAtPath_attributes(path, attributes)) {
      Folder folder(parent, name, path);
      std::string entryPath;
      forEachEntry(
          folder,
          [this](platform::Directory& directory, std::vector<QSWalkMemo::Item>* read, size_t limit) {
            std::string entry;
            platform::FileAttributes a;
            while (read->size() < limit) {
              if (shouldStop() || !directory.readEntry(&entry)) return true;
              if (directory.attributesOf(entry, &a, false)) read->push_back({entry, a});
            }
            return false;
          },
          [&](const std::string& entry, const platform::FileAttributes& a) {
            joinInto(&entryPath, path, entry);
            visit(&folder, entry, entryPath, a);
          });
    }
    visitor_->finishVisitAtPath_attributes(path, attributes);
  } else if (attributes.isRegularFile() || attributes.isSymbolicLink()) {
    visitor_->startVisitAtPath_attributes(path, attributes);
    visitor_->finishVisitAtPath_attributes(path, attributes);
  }
}
