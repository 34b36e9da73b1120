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

#include <deque>
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
  // The copies of the folder being listed at each depth: emptied and filled
  // again from folder to folder, so that their storage is allocated once
  // per depth rather than grown anew in every folder.  (A deque: a deeper
  // folder's buffer is added without moving those in use above it.)
  std::deque<std::vector<Copy>> copiesAtDepth_;
  size_t depth_ = 0;
  // A group of copies: its reading position and its span of groupOrder_.
  struct Run {
    uint32_t first;  // reading position of the group's first copy
    uint32_t begin;
    uint32_t end;
  };
  // visitGroups' working storage, reused from folder to folder.
  std::vector<uint32_t> groupOrder_;
  std::vector<Run> groupRuns_;
};
