// The folders of a backup's merged tree where its transfer has work, as
// the dry run over the same tree found them: the folder of every file it
// counted as to be copied, every folder missing from the backup folder, and
// all their ancestors.  The transfer then opens only these folders and
// leaves the rest of the tree unvisited: it would find nothing to do there,
// having to make the same decisions on the same tree.
//
// A plan holds for the category filter it was made with (a request that
// joins a backup under way may change the backup's categories between the
// dry run and the transfer).  Made by one dry run, then read by the transfer
// that follows on the same thread; node pointers are valid while the tree lives.
#pragma once

#include <unordered_set>

#include "Engine/files/QSFSNode.h"
#include "Engine/files/QSFSNodeStack.h"

class QSTransferPlan {
 public:
  explicit QSTransferPlan(QSCategoryMask categoryFilter) : categoryFilter_(categoryFilter) {}

  // Notes that the transfer has work at `folder` (a folder node of the tree,
  // or the tree's root): the folder and its ancestors are to be opened.
  void noteWorkIn(const QSFSNode* folder);
  // Opens `folder` and its ancestors without noting work (the tree's root,
  // which the transfer always opens).
  void open(const QSFSNode* folder);
  // Whether any work was noted: a plan without work leaves the backup folder as it is.
  bool hasWork() const { return workCount_ != 0; }
  // Whether the transfer is to open `folder`.
  bool opens(const QSFSNode* folder) const { return folders_.count(folder) != 0; }
  QSCategoryMask categoryFilter() const { return categoryFilter_; }
  size_t folderCount() const { return folders_.size(); }

 private:
  QSCategoryMask categoryFilter_;
  std::unordered_set<const QSFSNode*> folders_;
  size_t workCount_ = 0;
};
