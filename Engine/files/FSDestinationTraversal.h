// The walk of a backup folder, where each backed-up file is held as
// versioned copies ("report@3.txt").  Folders are reported as such; in each
// folder the copies are gathered by plain file name (ignoring case) and each
// group is reported once, with the copies in listing order and the group's
// path ending in the lower-cased plain name.  Files whose names are not
// versioned names are ignored.  Subfolders are walked as they are listed,
// before the folder's groups are reported.  Copies' creation dates come
// from the stored creation-date attribute where there is one; given a
// creation-date cache, a copy the cache knows as it is is not read again,
// and a walk that ends without being stopped, and read every folder it
// listed from the disk, renews the cache.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Engine/files/FSDepthFirstTraversal.h"
#include "Engine/files/QSCreationDateCache.h"

class FSDestinationTraversal : public FSDepthFirstTraversal {
 public:
  using FSDepthFirstTraversal::FSDepthFirstTraversal;

  void recurseAtDestinationPath_withVisitor(const std::string& destinationPath, FSVisitor& visitor);

  // The cache consulted and renewed by the walk (none by default).
  void setCreationDateCache(std::shared_ptr<QSCreationDateCache> cache) { cache_ = std::move(cache); }

 protected:
  void _recurse(const std::string& path) override;

 private:
  // The item `name` of `parent` (none: the walk's top item) at `path`, examined as `attributes`.
  void visit(Folder* parent, const std::string& name, const std::string& path,
             const platform::FileAttributes& attributes);
  // The attributes of the copy `entry` of `folder`, with its stored creation date.
  bool copyAttributes(platform::Directory& folder, const std::string& entry, platform::FileAttributes* attributes);

  // A stored copy of a folder, under its current file name lower-cased.
  struct Copy {
    std::string key;
    std::shared_ptr<QSFSVersion> version;
  };
  // Reports the copies of the folder at `path` (in reading order) as groups of one key each.
  void visitGroups(const std::string& path, const std::vector<Copy>& copies);

  std::shared_ptr<QSCreationDateCache> cache_;
};
