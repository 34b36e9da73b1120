#include "Engine/files/QSFSDepthFirstTreeTraversal.h"

#include <gtest/gtest.h>

#include "Engine/files/QSFSBasicNodeVisitor.h"
#include "Engine/files/QSFSNode.h"

namespace {

class Recorder : public QSFSBasicNodeVisitor {
 public:
  std::vector<std::string> calls;
  std::function<bool(const std::shared_ptr<QSFSNode>&)> answer = [](const auto&) { return true; };
  std::function<void(const std::shared_ptr<QSFSNode>&)> onStart = [](const auto&) {};
  size_t deepestStack = 0;
  void startTraversalOfRoot(const std::shared_ptr<QSFSNode>& n) override {
    QSFSBasicNodeVisitor::startTraversalOfRoot(n);
    calls.push_back("begin " + std::string(n->path()));
  }
  bool startVisit(const std::shared_ptr<QSFSNode>& n) override {
    QSFSBasicNodeVisitor::startVisit(n);
    deepestStack = std::max(deepestStack, nodeStack().size());
    calls.push_back("start " + std::string(n->path()));
    onStart(n);
    return answer(n);
  }
  void finishVisit(const std::shared_ptr<QSFSNode>& n) override {
    calls.push_back("finish " + std::string(n->path()));
    QSFSBasicNodeVisitor::finishVisit(n);
  }
  void finishTraversalOfRoot(const std::shared_ptr<QSFSNode>& n) override {
    calls.push_back("end " + std::string(n->path()));
    QSFSBasicNodeVisitor::finishTraversalOfRoot(n);
  }
};

// root with children s1..s5, each holding one file "f<i>".
std::shared_ptr<QSFSMutableNode> fiveSiblings() {
  auto root = QSFSMutableNode::initWithPath("/r");
  for (int i = 1; i <= 5; ++i) {
    auto s = QSFSMutableNode::initWithPath("s" + std::to_string(i));
    s->addNode(QSFSMutableNode::initWithPath("f" + std::to_string(i)));
    root->addNode(s);
  }
  return root;
}

}  // namespace

TEST(QSFSDepthFirstTreeTraversalTest, VisitorAnsweringFalseForTheRootGetsFourCalls) {
  std::atomic<bool> flag{false};
  Recorder r;
  r.answer = [](const auto&) { return false; };
  QSFSDepthFirstTreeTraversal(&flag).traverseTree_withVisitor(fiveSiblings(), r);
  EXPECT_EQ(r.calls, (std::vector<std::string>{"begin /r", "start /r", "finish /r", "end /r"}));
}

TEST(QSFSDepthFirstTreeTraversalTest, FlagAlreadySetGivesTheSameFourCalls) {
  std::atomic<bool> flag{true};
  Recorder r;
  QSFSDepthFirstTreeTraversal(&flag).traverseTree_withVisitor(fiveSiblings(), r);
  EXPECT_EQ(r.calls, (std::vector<std::string>{"begin /r", "start /r", "finish /r", "end /r"}));
}

TEST(QSFSDepthFirstTreeTraversalTest, FlagSetDuringTheThirdSiblingStillStartsAndFinishesTheRestWithoutDescending) {
  std::atomic<bool> flag{false};
  Recorder r;
  r.onStart = [&](const std::shared_ptr<QSFSNode>& n) {
    if (n->path() == "s3") flag = true;
  };
  QSFSDepthFirstTreeTraversal(&flag).traverseTree_withVisitor(fiveSiblings(), r);
  EXPECT_EQ(r.calls, (std::vector<std::string>{"begin /r", "start /r", "start s1", "start f1", "finish f1", "finish s1",
                                              "start s2", "start f2", "finish f2", "finish s2", "start s3", "finish s3",
                                              "start s4", "finish s4", "start s5", "finish s5", "finish /r", "end /r"}));
}

TEST(QSFSDepthFirstTreeTraversalTest, PrunedNodeIsFinishedButNotEntered) {
  std::atomic<bool> flag{false};
  Recorder r;
  r.answer = [](const std::shared_ptr<QSFSNode>& n) { return n->path() != "s2"; };
  QSFSDepthFirstTreeTraversal(&flag).traverseTree_withVisitor(fiveSiblings(), r);
  EXPECT_EQ(std::count(r.calls.begin(), r.calls.end(), "start f2"), 0);
  EXPECT_EQ(std::count(r.calls.begin(), r.calls.end(), "finish s2"), 1);
  EXPECT_EQ(std::count(r.calls.begin(), r.calls.end(), "start f5"), 1);
}

TEST(QSFSDepthFirstTreeTraversalTest, BasicVisitorStackIsEmptyAfterEveryWalk) {
  for (bool stop : {false, true}) {
    std::atomic<bool> flag{stop};
    Recorder r;
    QSFSDepthFirstTreeTraversal(&flag).traverseTree_withVisitor(fiveSiblings(), r);
    EXPECT_EQ(r.nodeStack().size(), 0u);
    if (!stop) {
      EXPECT_EQ(r.deepestStack, 3u);
    }
  }
  Recorder pruned;
  pruned.answer = [](const auto&) { return false; };
  std::atomic<bool> flag{false};
  QSFSDepthFirstTreeTraversal(&flag).traverseTree_withVisitor(fiveSiblings(), pruned);
  EXPECT_EQ(pruned.nodeStack().size(), 0u);
}

TEST(QSFSDepthFirstTreeTraversalTest, WithoutAFlagTheWholeTreeIsWalked) {
  Recorder r;
  QSFSDepthFirstTreeTraversal(nullptr).traverseTree_withVisitor(fiveSiblings(), r);
  EXPECT_EQ(r.calls.size(), 2u + 2u * 11u);
}
