#include "Engine/files/FSDestinationTraversal.h"

#include <algorithm>
#include <numeric>

#include "Engine/records/QSVersionName.h"
#include "platform/Date.h"
#include "platform/UnicodeText.h"

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
  // A group is the copies of one name in any letter case; the groups are
  // visited in the order their first copies were read.
  if (copiesAtDepth_.size() <= depth_) copiesAtDepth_.emplace_back();
  std::vector<Copy>& copies = copiesAtDepth_[depth_];
  copies.clear();
  ++depth_;
  std::string currentName, entryPath;
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
          uint64_t index = 0;
          if (!QSParseVersionedName(entry, &currentName, &index)) return;
          copies.push_back({platform::lowercase(currentName),
                            std::make_shared<QSFSVersion>(entry, QSFSFileAttributes::fromStoredCopyAttributes(a), index)});
        } else if (a.isDirectory()) {
          joinInto(&entryPath, path, entry);
          visit(&folder, entry, entryPath, a);
        }
      });
  --depth_;
  visitGroups(path, copies);
  copies.clear();
  visitor_->finishVisitAtPath_attributes(path, attributes);
}

void FSDestinationTraversal::visitGroups(const std::string& path, const std::vector<Copy>& copies) {
  if (copies.empty()) return;
  // Sorted by key, equal keys in reading order: each group is one run, led by its first copy.
  std::vector<uint32_t>& order = groupOrder_;
  order.resize(copies.size());
  std::iota(order.begin(), order.end(), 0u);
  std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return copies[a].key < copies[b].key; });
  std::vector<Run>& runs = groupRuns_;
  runs.clear();
  for (uint32_t i = 0; i < order.size();) {
    uint32_t j = i + 1;
    while (j < order.size() && copies[order[j]].key == copies[order[i]].key) ++j;
    runs.push_back({order[i], i, j});
    i = j;
  }
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.first < b.first; });
  QSFSVersionArray versions;
  std::string groupPath;
  for (const Run& run : runs) {
    versions.clear();
    for (uint32_t i = run.begin; i < run.end; ++i) versions.push_back(copies[order[i]].version);
    joinInto(&groupPath, path, copies[run.first].key);
    visitor_->startVisitOfGroup_atPath(versions, groupPath);
    visitor_->finishVisitOfGroup_atPath(versions, groupPath);
  }
}
