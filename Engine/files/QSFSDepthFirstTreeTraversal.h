// A depth-first walk of a node tree that a visitor can prune (a false
// answer to startVisit) and a flag can stop.  Every startVisit is matched by
// exactly one finishVisit, whatever happens.  The stop flag belongs to the
// caller, is set from another thread and is read once per node; a stopped
// walk still finishes the nodes it started (siblings still get their start
// and finish but are not descended into) and still ends the traversal.
#pragma once

#include <atomic>
#include <memory>

#include "Engine/files/QSFSNodeVisitor.h"
#include "platform/OVThread.h"

class QSFSNode;

class QSFSDepthFirstTreeTraversal {
 public:
  explicit QSFSDepthFirstTreeTraversal(const std::atomic<bool>* terminationFlag) : isCancelled_(terminationFlag) {}
  static std::unique_ptr<QSFSDepthFirstTreeTraversal> initWithTerminationFlag(const std::atomic<bool>* flag) {
    return std::make_unique<QSFSDepthFirstTreeTraversal>(flag);
  }

  // One walk, on the calling thread.
  void traverseTree_withVisitor(const std::shared_ptr<QSFSNode>& root, QSFSNodeVisitor& visitor);

 private:
  void walk(const std::shared_ptr<QSFSNode>& node);

  QSFSNodeVisitor* visitor_ = nullptr;
  std::shared_ptr<platform::OVThread> currentThread_;
  const std::atomic<bool>* isCancelled_;
};
