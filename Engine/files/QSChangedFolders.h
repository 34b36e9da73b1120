// The answer of the change journal for one root: the folders whose listing
// may have changed, and the places at and below which everything may have.
// A plain value; paths are named as the root is.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "platform/Path.h"

class QSChangedFolders {
 public:
  void addFolder(std::string path) { folders_.insert(std::move(path)); }
  void addSubtree(std::string path) { subtrees_.push_back(std::move(path)); }

  // Whether the listing of the folder at `path` may differ from an earlier reading.
  bool listingChanged(const std::string& path) const {
    if (folders_.count(path)) return true;
    for (const auto& top : subtrees_)
      if (platform::isAtOrBelow(path, top)) return true;
    return false;
  }
  bool empty() const { return folders_.empty() && subtrees_.empty(); }
  size_t folderCount() const { return folders_.size(); }
  size_t subtreeCount() const { return subtrees_.size(); }

 private:
  std::unordered_set<std::string> folders_;
  std::vector<std::string> subtrees_;
};
