#include "Engine/QSSourceTreeBuilder.h"

#include "Engine/QSCategoryIdentifiers.h"

QSSourceTreeBuilder::QSSourceTreeBuilder() { reset(); }

void QSSourceTreeBuilder::reset() {
  root_ = QSFSMutableNode::initWithPath("/");
  tally_ = QSMutableTally::init();
}

std::shared_ptr<QSFSNode> QSSourceTreeBuilder::nodeAtPath_attributes(const std::string& path,
                                                                     const platform::FileAttributes& attributes) {
  const QSFSFileAttributes record = QSFSFileAttributes::fromFileAttributes(attributes);
  if (nodeStack_.size() == 0) {
    root_->setSourceAttributes(record);
    return root_;
  }
  const auto slash = path.find_last_of('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  auto node = QSFSMutableNode::initWithPath(name);
  node->setSourceAttributes(record);
  if (record.type == kQSFSTypeFile) {
    const QSCategoryMask mask = nodeStack_.applicableCategoryMask(name);
    for (size_t i = 0; i < kAllCategories.size(); ++i)
      if (mask & (1u << i)) tally_->tallyFileOfSize_forSourceCategory(record.size, kAllCategories[i]);
  }
  QSFSMutableNode::from(nodeStack_.top())->addNode(node);
  return node;
}
