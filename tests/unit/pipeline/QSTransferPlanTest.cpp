#include "Engine/pipeline/QSTransferPlan.h"

#include <gtest/gtest.h>

TEST(QSTransferPlanTest, OpeningTheRootIsNoWorkAndNotingWorkOpensTheFolderAndItsAncestors) {
  auto root = QSFSMutableNode::initWithPath("/");
  auto documents = QSFSMutableNode::initWithPath("Documents");
  auto old = QSFSMutableNode::initWithPath("Old");
  root->addNode(documents);
  documents->addNode(old);
  QSTransferPlan plan(0x3f);
  plan.open(root.get());
  EXPECT_TRUE(plan.opens(root.get()));
  EXPECT_FALSE(plan.hasWork());
  EXPECT_FALSE(plan.opens(documents.get()));
  plan.noteWorkIn(old.get());
  EXPECT_TRUE(plan.hasWork());
  EXPECT_TRUE(plan.opens(old.get()));
  EXPECT_TRUE(plan.opens(documents.get()));
  EXPECT_EQ(plan.folderCount(), 3u);
}
