#include "Engine/pipeline/QSTransferInstrument.h"

#include "Engine/files/QSBackupFolderWrites.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSVersionName.h"
#include "platform/Date.h"
#include "platform/FileCopier.h"
#include "platform/FileManager.h"
#include "platform/Path.h"

namespace {

QSCategoryMask maskOf(const std::optional<std::set<std::string>>& categories) {
  QSCategoryMask mask = 0;
  if (!categories) return mask;
  for (size_t i = 0; i < kAllCategories.size(); ++i)
    if (categories->count(kAllCategories[i])) mask |= static_cast<QSCategoryMask>(1u << i);
  return mask;
}

// The first category of `mask` in the order of kAllCategories.
std::string firstCategoryOf(QSCategoryMask mask) {
  for (size_t i = 0; i < kAllCategories.size(); ++i)
    if (mask & (1u << i)) return kAllCategories[i];
  return kAllCategories.back();
}

}  // namespace

QSTransferInstrument::QSTransferInstrument(std::string sourcePath, std::string destinationPath,
                                           std::optional<std::set<std::string>> categoryFilter,
                                           std::shared_ptr<QSMutableTally> tally, uint32_t versionDepth)
    : destinationPath_(std::move(destinationPath)),
      sourcePath_(std::move(sourcePath)),
      categoryFilter_(maskOf(categoryFilter)),
      tally_(std::move(tally)),
      versionDepth_(versionDepth) {}

void QSTransferInstrument::startTraversalOfRoot(const std::shared_ptr<QSFSNode>& root) {
  QSFSBasicNodeVisitor::startTraversalOfRoot(root);
  root_ = root.get();
  contiguousFailedCopyCount_ = 0;
  completePlan_.reset();
  planning_ = isDryRun_ ? std::make_shared<QSTransferPlan>(categoryFilter_) : nullptr;
  if (planning_) planning_->open(root_);
}

void QSTransferInstrument::finishTraversalOfRoot(const std::shared_ptr<QSFSNode>& root) {
  contiguousFailedCopyCount_ = 0;
  // A dry run cut short by a stop saw only part of the tree.
  if (planning_ && !(isCancelled_ && isCancelled_->load())) completePlan_ = std::move(planning_);
  planning_.reset();
  root_ = nullptr;
  QSFSBasicNodeVisitor::finishTraversalOfRoot(root);
}

bool QSTransferInstrument::startVisit(const std::shared_ptr<QSFSNode>& node) {
  const bool answer = QSFSBasicNodeVisitor::startVisit(node);
  if (node.get() == root_) return answer;
  const QSFSFileAttributes source = node->sourceAttributes();
  // The node is on the stack now: its own folder name counts for its categories.
  const QSCategoryMask categories = nodeStack_.applicableCategoryMask(
      source.type == kQSFSTypeFile ? std::optional<std::string_view>(node->fileNameView()) : std::nullopt);
  if (!(categories & categoryFilter_)) return false;
  if (isCancelled_ && isCancelled_->load()) return false;
  if (source.type == kQSFSTypeFolder) {
    if (planning_) {
      if (node->destinationAttributes().type != kQSFSTypeFolder) planning_->noteWorkIn(node.get());
    } else if (!isDryRun_) {
      // Following a plan, a folder without work is not opened (nor looked at on the disk).
      if (plan_ && plan_->categoryFilter() == categoryFilter_ && !plan_->opens(node.get())) return false;
      visitFolder(*node);
    }
  } else if (source.type == kQSFSTypeFile) {
    visitFile(node, categories);
  }
  return answer;
}

void QSTransferInstrument::visitFolder(const QSFSNode& node) {
  const std::string fullPath = node.fullPath();
  const std::string folder = platform::appendingPathComponent(destinationPath_, fullPath);
  bool isDirectory = false;
  const char* message;
  if (!platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(folder, &isDirectory, false)) {
    // The new folder takes the owner and permissions of the user's folder.
    platform::FileAttributes like;
    const bool haveLike =
        platform::FileManager::attributesAtPath(platform::appendingPathComponent(sourcePath_, fullPath), &like);
    platform::FileError error;
    if (platform::FileCopier::createDirectoryBeneath(destinationPath_, node.relativePath(), haveLike ? &like : nullptr,
                                                     &error, destinationDevice_)) {
      QSBackupFolderWrites::noteChangedItem(folder);
      contiguousFailedCopyCount_ = 0;
      return;
    }
    message = "Unable to create directory at %@";  // passed as it stands
  } else if (isDirectory) {
    return;
  } else {
    message = "Unable to create directory because a file with same name already exists";
  }
  report(QSBackupError::initWithUID_sourcePath_destinationPath_message_code(std::nullopt, std::nullopt, folder, message,
                                                                            0));
}

void QSTransferInstrument::visitFile(const std::shared_ptr<QSFSNode>& node, QSCategoryMask categories) {
  const bool hadVersions = node->hasVersions();
  const QSFSFileAttributes source = node->sourceAttributes();
  const auto& latest = node->latestVersion();  // none without versions
  const QSFSFileAttributes stored = latest ? latest->attributes() : QSFSFileAttributes();
  if (hadVersions && QSIsUnchangedCopy(source, stored, traits_)) return;
  const QSCategoryMask wanted = categories & categoryFilter_;
  const bool copied =
      copyNode_inCategory_fileSize_sizeOfLatestVersion(node, firstCategoryOf(wanted), source.size, stored.size);
  if (!isDryRun_ && copied && hadVersions && node->parent())
    node->removeOldestVersionsOfFile_beneath_inFolder(versionDepth_ + 1, destinationPath_,
                                                      node->parent()->relativePath());
}

bool QSTransferInstrument::copyNode_inCategory_fileSize_sizeOfLatestVersion(const std::shared_ptr<QSFSNode>& node,
                                                                           const std::string& category,
                                                                           int64_t fileSize,
                                                                           int64_t sizeOfLatestVersion) {
  if (isDryRun_) {
    if (planning_) planning_->noteWorkIn(node->parent() ? node->parent() : root_);
    tally_->increaseBytesBy_filesBy_forExpectedCategory(fileSize, 1, category);
    return true;
  }
  const auto latest = node->latestVersion();
  const uint64_t index = latest ? latest->index() + 1 : 0;
  const std::string storedName = QSVersionName(node->fileName(), index);
  const std::string parentRelative = node->parent() ? node->parent()->relativePath() : std::string();
  const std::string parentFull = node->parent() ? node->parent()->fullPath() : std::string();
  const std::string sourcePath = platform::appendingPathComponent(sourcePath_, node->fullPath());
  const std::string destinationPath =
      platform::appendingPathComponent(platform::appendingPathComponent(destinationPath_, parentFull), storedName);

  platform::CopyOptions options;
  options.setCreationDate = true;
  options.setModificationDate = true;
  options.deleteDestinationFirst = true;
  options.deleteDestinationIfError = true;
  // The transfer makes its copies durable with one sync of the disk at its end.
  options.syncData = false;
  // A cancelled backup stops in the middle of a large file, too.
  options.cancelled = isCancelled_;
  platform::FileError error;
  const bool copied = platform::FileCopier::copyBeneath(sourcePath_, node->relativePath(), destinationPath_,
                                                        platform::appendingPathComponent(parentRelative, storedName),
                                                        options, &error, destinationDevice_);
  // Made, or made and taken away again after an error: the folder changed either way.
  QSBackupFolderWrites::noteChangedItem(destinationPath);
  if (copied) {
    tally_->increaseBytesBy_filesBy_forTransferredCategory(fileSize, 1, category);
    tally_->increaseBytesBy_filesBy_forDestinationCategory(fileSize - sizeOfLatestVersion, node->hasVersions() ? 0 : 1,
                                                           category);
    return true;
  }
  copyError_ = error;
  // A copy stopped because the backup was cancelled is not the file's failure.
  if (isCancelled_ && isCancelled_->load()) return false;
  // Free space is read at the backup folder itself: the file's own folder may be missing.
  const auto freeSpace = platform::FileManager::freeSpaceAtPath(destinationPath_);
  const int64_t code =
      freeSpace && *freeSpace < static_cast<uint64_t>(node->sourceAttributes().size) ? -1429 : -1;
  auto record = QSBackupError::initWithUID_sourcePath_destinationPath_message_code(
      std::nullopt, sourcePath, destinationPath, copyError_.localizedFailureReason(), code);
  record->setSourceBytes(fileSize);
  record->setSourceModificationDate(platform::Date(node->sourceAttributes().modificationDate));
  report(record);
  return false;
}

void QSTransferInstrument::report(const std::shared_ptr<QSBackupError>& error) {
  if (delegate_) delegate_->transferInstrument_error(*this, error);
  ++contiguousFailedCopyCount_;
}
