// Builds the source tree and the source tally of one walk of a home folder.
//
// The walk's first item (the home folder) stands for the root node, whose
// path is "/", so every node's full path is its path below the home folder.
// Each item gets a node under the node of its folder, carrying its source
// attributes; each file and symbolic link is counted once in every category
// its place gives it (the folders between the home folder and the file).
#pragma once

#include <memory>

#include "Engine/files/FSDepthFirstVisitor.h"
#include "Engine/files/QSFSNode.h"
#include "Engine/records/QSMutableTally.h"

class QSSourceTreeBuilder : public FSDepthFirstVisitor {
 public:
  QSSourceTreeBuilder();

  std::shared_ptr<QSFSNode> nodeAtPath_attributes(const std::string& path,
                                                  const platform::FileAttributes& attributes) override;

  // The node of the item at `path` for a walk whose ancestors of the item
  // are on `stack` (none: the item is the home folder, whose node is
  // `root`); files and links are counted in `tally`.
  static std::shared_ptr<QSFSNode> sourceNode(const QSFSNodeStack& stack, const std::shared_ptr<QSFSMutableNode>& root,
                                              QSMutableTally& tally, const std::string& path,
                                              const platform::FileAttributes& attributes);

  const std::shared_ptr<QSFSMutableNode>& root() const { return root_; }
  const std::shared_ptr<QSMutableTally>& tally() const { return tally_; }
  // Starts over with an empty tree and tally.
  void reset();

 private:
  std::shared_ptr<QSFSMutableNode> root_;
  std::shared_ptr<QSMutableTally> tally_;
};
