// The visitor of a node-tree walk.
#pragma once

#include <memory>

class QSFSNode;

class QSFSNodeVisitor {
 public:
  virtual ~QSFSNodeVisitor() = default;
  // Once, after the whole walk.
  virtual void finishTraversalOfRoot(const std::shared_ptr<QSFSNode>& root) = 0;
  // After a node and everything below it.
  virtual void finishVisit(const std::shared_ptr<QSFSNode>& node) = 0;
  // On reaching a node, before its children; false: do not descend into it.
  virtual bool startVisit(const std::shared_ptr<QSFSNode>& node) = 0;
  // Once, before the walk.
  virtual void startTraversalOfRoot(const std::shared_ptr<QSFSNode>& root) = 0;
};
