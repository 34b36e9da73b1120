#include "Engine/files/QSFSDepthFirstTreeTraversal.h"

#include "Engine/files/QSFSNode.h"

void QSFSDepthFirstTreeTraversal::traverseTree_withVisitor(const std::shared_ptr<QSFSNode>& root,
                                                           QSFSNodeVisitor& visitor) {
  visitor_ = &visitor;
  currentThread_ = platform::OVThread::currentThread();
  visitor.startTraversalOfRoot(root);
  walk(root);
  visitor.finishTraversalOfRoot(root);
  visitor_ = nullptr;
  currentThread_.reset();
}

void QSFSDepthFirstTreeTraversal::walk(const std::shared_ptr<QSFSNode>& node) {
  const bool descend = visitor_->startVisit(node);
  if (descend && !(isCancelled_ && isCancelled_->load(std::memory_order_relaxed)))
    node->children().enumerate([this](const std::shared_ptr<QSFSNode>& child) { walk(child); });
  visitor_->finishVisit(node);
}
