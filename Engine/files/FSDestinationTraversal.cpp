#include "Engine/files/FSDestinationTraversal.h"

#include "Engine/files/QSCaseInsensitiveMap.h"
#include "Engine/records/QSVersionName.h"
#include "platform/Date.h"

void FSDestinationTraversal::recurseAtDestinationPath_withVisitor(const std::string& destinationPath,
                                                                 FSVisitor& visitor) {
  if (cache_) {
    const double now = platform::Date::now().timeIntervalSince1970();
    cache_->beginWalk(platform::FileTime{static_cast<int64_t>(now), 0});
  }
  kickOffRecursionWithPath_visitor(destinationPath, visitor);
  if (cache_) cache_->finishWalk(!wasStopped());
}

bool FSDestinationTraversal::copyAttributes(platform::Directory& folder, const std::string& entry,
                                            platform::FileAttributes* a) {
  if (!cache_) return folder.attributesOf(entry, a, true);
  if (!folder.attributesOf(entry, a, false)) return false;
  if (!a->isRegularFile() && !a->isSymbolicLink()) return true;
  if (cache_->fill(a)) return true;
  folder.readStoredCreationDateOf(entry, a);
  cache_->remember(*a);
  return true;
}

void FSDestinationTraversal::_recurse(platform::Directory* parent, const std::string& name, const std::string& path) {
  if (shouldStop()) return;
  platform::FileAttributes attributes;
  if (!attributesOf(parent, name, path, &attributes, true)) return;
  if (attributes.isRegularFile() || attributes.isSymbolicLink()) {
    visitor_->startVisitAtPath_attributes(path, attributes);
    visitor_->finishVisitAtPath_attributes(path, attributes);
    return;
  }
  if (!attributes.isDirectory()) return;
  if (!visitor_->startVisitAtPath_attributes(path, attributes)) {
    visitor_->finishVisitAtPath_attributes(path, attributes);
    return;
  }
  QSCaseInsensitiveMultiMap<std::shared_ptr<QSFSVersion>> groups;
  if (auto folder = openFolder(parent, name, path)) {
    std::string entry;
    while (!shouldStop() && folder->readEntry(&entry)) {
      platform::FileAttributes a;
      if (!copyAttributes(*folder, entry, &a)) continue;
      if (a.isRegularFile() || a.isSymbolicLink()) {
        const auto parsed = QSParseFileName(entry);
        if (!parsed) continue;
        auto version = QSFSVersion::versionWithFileName_attributes(entry, QSFSFileAttributes::fromStoredCopyAttributes(a));
        if (!version) continue;
        groups.addObject_forKey(std::move(version), (*parsed)[0]);
      } else if (a.isDirectory()) {
        _recurse(folder.get(), entry, join(path, entry));
      }
    }
  }
  for (const std::string& key : groups.keyEnumerator()) {
    const QSFSVersionArray& versions = *groups.objectsForKey(key);
    const std::string groupPath = join(path, key);
    visitor_->startVisitOfGroup_atPath(versions, groupPath);
    visitor_->finishVisitOfGroup_atPath(versions, groupPath);
  }
  visitor_->finishVisitAtPath_attributes(path, attributes);
}
