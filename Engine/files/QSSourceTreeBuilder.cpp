#include "Engine/files/QSSourceTreeBuilder.h"

#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/Path.h"

QSSourceTreeBuilder::QSSourceTreeBuilder() { reset(); }

void QSSourceTreeBuilder::reset() {
  root_ = QSFSMutableNode::initWithPath("/");
  tally_ = QSMutableTally::init();
}

std::shared_ptr<QSFSNode> QSSourceTreeBuilder::nodeAtPath_attributes(const std::string& path,
                                                                     const platform::FileAttributes& attributes) {
  return sourceNode(nodeStack_, root_, *tally_, path, attributes);
}

std::shared_ptr<QSFSNode> QSSourceTreeBuilder::sourceNode(const QSFSNodeStack& stack,
                                                          const std::shared_ptr<QSFSMutableNode>& root,
                                                          QSMutableTally& tally, const std::string& path,
                                                          const platform::FileAttributes& attributes) {
  const QSFSFileAttributes record = QSFSFileAttributes::fromFileAttributes(attributes);
  if (stack.size() == 0) {
    root->setSourceAttributes(record);
    return root;
  }
  auto node = QSFSMutableNode::initWithPath(platform::lastPathComponentView(path));
  node->setSourceAttributes(record);
  if (record.type == kQSFSTypeFile) {
    const QSCategoryMask mask = stack.applicableCategoryMask(node->path());
    for (size_t i = 0; i < kAllCategories.size(); ++i)
      if (mask & (1u << i)) tally.tallyFileOfSize_forSourceCategory(record.size, kAllCategories[i]);
  }
  QSFSMutableNode::from(stack.top())->addNode(node);
  return node;
}
