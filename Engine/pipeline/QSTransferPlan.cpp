#include "Engine/pipeline/QSTransferPlan.h"

void QSTransferPlan::noteWorkIn(const QSFSNode* folder) {
  ++workCount_;
  open(folder);
}

void QSTransferPlan::open(const QSFSNode* folder) {
  // Stops at the first folder already noted: its ancestors are noted too.
  for (const QSFSNode* node = folder; node && folders_.insert(node).second; node = node->parent()) {
  }
}
