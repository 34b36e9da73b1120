// The walk of a backup folder, where each backed-up file is held as
// versioned copies ("report@3.txt").  Folders are reported as such; in each
// folder the copies are gathered by plain file name (ignoring case) and each
// group is reported once, with the copies in listing order and the group's
// path ending in the lower-cased plain name.  Files whose names are not
// versioned names are ignored.  Subfolders are walked as they are listed,
// before the folder's groups are reported.  Copies' creation dates come
// from the stored creation-date attribute where there is one.
#pragma once

#include "Engine/files/FSDepthFirstTraversal.h"

class FSDestinationTraversal : public FSDepthFirstTraversal {
 public:
  using FSDepthFirstTraversal::FSDepthFirstTraversal;

  void recurseAtDestinationPath_withVisitor(const std::string& destinationPath, FSVisitor& visitor) {
    kickOffRecursionWithPath_visitor(destinationPath, visitor);
  }

 protected:
  void _recurse(platform::Directory* parent, const std::string& name, const std::string& path) override;
};
