// The visitor that a backup runs over its merged source/destination tree.
//
// In a dry run it only counts, in the tally's expected view, every file that
// would be copied.  Otherwise it creates missing destination folders,
// copies each new or changed file into the backup folder as the file's next
// stored version ("report@3.txt" after "report@2.txt"), counts what it
// copied in the transferred and destination views, prunes the oldest
// versions so that the new copy and `versionDepth` older ones remain, and
// reports each failure to its delegate as a QSBackupError (code 0 for a
// folder, -1429 when the disk has less free space than the file needs, -1
// otherwise).  A file is unchanged, and left alone, when its newest stored
// version has the same size and dates (at the destination's time
// granularity, see QSDestinationTraits).
//
// Only files and folders whose categories meet the category filter are
// visited; a filter of nothing meets no category.  With a termination flag,
// nothing more is created or copied once the flag is set (the tree walk
// still visits the remaining siblings of the nodes it has opened).  The
// instrument runs on one thread and takes no lock.
//
// A dry run that goes to its end without being stopped leaves a plan of
// the folders where a transfer over the same tree has work; a transfer
// given that plan (made with its own category filter) opens only those
// folders, and makes the same copies, folders and reports as without it.
//
// Copies are made as root on a disk that users can write to: files and
// folders are created and pruned below the backup folder without crossing
// a link or mount point, and, with a destination device set, never on any
// other device (a disk unmounted during the walk makes the copies fail
// instead of writing under the empty mount point).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Engine/files/QSDestinationTraits.h"
#include "Engine/files/QSFSBasicNodeVisitor.h"
#include "Engine/files/QSFSNode.h"
#include "Engine/files/QSFSNodeStack.h"
#include "Engine/pipeline/QSTransferInstrumentDelegate.h"
#include "Engine/pipeline/QSTransferPlan.h"
#include "Engine/records/QSBackupError.h"
#include "Engine/records/QSMutableTally.h"
#include "platform/FileError.h"

class QSTransferInstrument : public QSFSBasicNodeVisitor {
 public:
  QSTransferInstrument(std::string sourcePath, std::string destinationPath,
                       std::optional<std::set<std::string>> categoryFilter, std::shared_ptr<QSMutableTally> tally,
                       uint32_t versionDepth);
  static std::unique_ptr<QSTransferInstrument> initWithSourcePath_destinationPath_categoryFilter_tally_versionDepth(
      std::string sourcePath, std::string destinationPath, std::optional<std::set<std::string>> categoryFilter,
      std::shared_ptr<QSMutableTally> tally, uint32_t versionDepth) {
    return std::make_unique<QSTransferInstrument>(std::move(sourcePath), std::move(destinationPath),
                                                  std::move(categoryFilter), std::move(tally), versionDepth);
  }

  void setDryRun(bool dryRun) { isDryRun_ = dryRun; }
  bool isDryRun() const { return isDryRun_; }
  void setDelegate(QSTransferInstrumentDelegate* delegate) { delegate_ = delegate; }
  int64_t contiguousFailedCopyCount() const { return contiguousFailedCopyCount_; }
  // How the destination keeps times and creation dates (exact by default).
  void setDestinationTraits(const QSDestinationTraits& traits) { traits_ = traits; }
  // The device the backup folder must stay on.
  void setDestinationDevice(std::optional<uint64_t> device) { destinationDevice_ = device; }
  const platform::FileError& copyError() const { return copyError_; }
  // The caller's stop flag (not owned; it must outlive the walk).
  void setTerminationFlag(const std::atomic<bool>* flag) { isCancelled_ = flag; }

  // After a dry run that was not stopped: where a transfer of the same tree has work; otherwise nothing.
  std::shared_ptr<const QSTransferPlan> plan() const { return completePlan_; }
  // The plan for a transfer; ignored when made with another category filter.
  void setPlan(std::shared_ptr<const QSTransferPlan> plan) { plan_ = std::move(plan); }
  void startTraversalOfRoot(const std::shared_ptr<QSFSNode>& root) override;
  bool startVisit(const std::shared_ptr<QSFSNode>& node) override;
  void finishTraversalOfRoot(const std::shared_ptr<QSFSNode>& root) override;

  // Copies (or, in a dry run, counts) one file; answers whether it succeeded.
  bool copyNode_inCategory_fileSize_sizeOfLatestVersion(const std::shared_ptr<QSFSNode>& node,
                                                        const std::string& category, int64_t fileSize,
                                                        int64_t sizeOfLatestVersion);

 private:
  void visitFolder(const QSFSNode& node);
  void visitFile(const std::shared_ptr<QSFSNode>& node, QSCategoryMask categories);
  void report(const std::shared_ptr<QSBackupError>& error);

  std::string destinationPath_;
  std::string sourcePath_;
  QSCategoryMask categoryFilter_ = 0;
  std::shared_ptr<QSMutableTally> tally_;
  const QSFSNode* root_ = nullptr;
  uint32_t versionDepth_ = 0;
  bool isDryRun_ = false;
  platform::FileError copyError_;
  QSTransferInstrumentDelegate* delegate_ = nullptr;
  int64_t contiguousFailedCopyCount_ = 0;
  QSDestinationTraits traits_;
  std::optional<uint64_t> destinationDevice_;
  const std::atomic<bool>* isCancelled_ = nullptr;
  std::shared_ptr<QSTransferPlan> planning_;              // a dry run's, while it runs
  std::shared_ptr<const QSTransferPlan> completePlan_;   // a dry run's, once it ended unstopped
  std::shared_ptr<const QSTransferPlan> plan_;           // a transfer's
};
