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
  // A walk that took listings from a memo did not see those folders' copies.
  if (cache_) cache_->finishWalk(!wasStopped() && foldersReused() == 0);
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

void FSDestinationTraversal::_recurse(const std::string& path) {
  if (shouldStop()) return;
  platform::FileAttributes attributes;
  if (!topAttributes(path, &attributes, true)) return;
  visit(nullptr, path.substr(path.find_last_of('/') + 1), path, attributes);
}

void FSDestinationTraversal::visit(Folder* parent, const std::string& name, const std::string& path,
                                   const platform::FileAttributes& attributes) {
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
  Folder folder(parent, name, path);
  QSCaseInsensitiveMultiMap<std::shared_ptr<QSFSVersion>> groups;
  forEachEntry(
      folder,
      [this](platform::Directory& directory, std::vector<QSWalkMemo::Item>* read, size_t limit) {
        std::string entry;
        while (read->size() < limit) {
          if (shouldStop() || !directory.readEntry(&entry)) return true;
          platform::FileAttributes a;
          if (!copyAttributes(directory, entry, &a)) continue;
          // A folder is visited with its own stored creation date, as the walk's top item is.
          if (a.isDirectory() && !directory.attributesOf(entry, &a, true)) continue;
          read->push_back({entry, a});
        }
        return false;
      },
      [&](const std::string& entry, const platform::FileAttributes& a) {
        if (a.isRegularFile() || a.isSymbolicLink()) {
          const auto parsed = QSParseFileName(entry);
          if (!parsed) return;
          auto version = QSFSVersion::versionWithFileName_attributes(entry, QSFSFileAttributes::fromStoredCopyAttributes(a));
          if (!version) return;
          groups.addObject_forKey(std::move(version), (*parsed)[0]);
        } else if (a.isDirectory()) {
          visit(&folder, entry, join(path, entry), a);
        }
      });
  for (const std::string& key : groups.keyEnumerator()) {
    const QSFSVersionArray& versions = *groups.objectsForKey(key);
    const std::string groupPath = join(path, key);
    visitor_->startVisitOfGroup_atPath(versions, groupPath);
    visitor_->finishVisitOfGroup_atPath(versions, groupPath);
  }
  visitor_->finishVisitAtPath_attributes(path, attributes);
}
