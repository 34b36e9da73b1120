// A node visitor that keeps the chain of open nodes on a stack: the root
// at the bottom, the node being visited on top.  Subclasses call these
// operations from their overrides so the stack stays balanced.
#pragma once

#include "Engine/files/QSFSNodeStack.h"
#include "Engine/files/QSFSNodeVisitor.h"

class QSFSBasicNodeVisitor : public QSFSNodeVisitor {
 public:
  void startTraversalOfRoot(const std::shared_ptr<QSFSNode>&) override {}
  bool startVisit(const std::shared_ptr<QSFSNode>& node) override {
    nodeStack_.push(node);
    return true;
  }
  void finishVisit(const std::shared_ptr<QSFSNode>&) override { nodeStack_.pop(); }
  void finishTraversalOfRoot(const std::shared_ptr<QSFSNode>&) override { nodeStack_.removeAllObjects(); }

  const QSFSNodeStack& nodeStack() const { return nodeStack_; }

 protected:
  QSFSNodeStack nodeStack_;
};
