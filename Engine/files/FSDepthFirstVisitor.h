// The base of visitors that turn a walk of real folders into a tree of
// nodes: each visited item asks `nodeAtPath_attributes` (each group of
// stored copies `groupNodeAtPath_versions`) for its node and keeps it on the
// node stack while the items below it are visited.  An item for which no
// node is made is not entered.  The base class makes no nodes.
#pragma once

#include <memory>

#include "Engine/files/FSVisitor.h"
#include "Engine/files/QSFSNodeStack.h"

class FSDepthFirstVisitor : public FSVisitor {
 public:
  void startTraversalOfPath(const std::string&) override { nodeStack_.removeAllObjects(); }
  void finishTraversalOfPath(const std::string&) override { nodeStack_.removeAllObjects(); }
  bool startVisitAtPath_attributes(const std::string& path, const platform::FileAttributes& attributes) override {
    auto node = nodeAtPath_attributes(path, attributes);
    if (!node) return false;
    nodeStack_.push(std::move(node));
    return true;
  }
  void finishVisitAtPath_attributes(const std::string&, const platform::FileAttributes&) override { nodeStack_.pop(); }
  void startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) override {
    nodeStack_.push(groupNodeAtPath_versions(path, versions));
  }
  void finishVisitOfGroup_atPath(const QSFSVersionArray&, const std::string&) override { nodeStack_.pop(); }

  virtual std::shared_ptr<QSFSNode> nodeAtPath_attributes(const std::string&, const platform::FileAttributes&) {
    return nullptr;
  }
  virtual std::shared_ptr<QSFSNode> groupNodeAtPath_versions(const std::string&, const QSFSVersionArray&) {
    return nullptr;
  }

  const QSFSNodeStack& nodeStack() const { return nodeStack_; }

 protected:
  QSFSNodeStack nodeStack_;
};
