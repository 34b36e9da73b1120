#include "Engine/pipeline/QSPerUIDEnvironment.h"

#include "Engine/files/FSDestinationTraversal.h"
#include "Engine/files/QSBackupFolderWrites.h"
#include "Engine/files/QSFSDepthFirstTreeTraversal.h"
#include "Engine/files/QSWarmWalk.h"
#include "Engine/pipeline/QSDestinationPrefetch.h"
#include "Engine/pipeline/QSSettledPasses.h"
#include "Engine/pipeline/QSTransferInstrument.h"
#include "Engine/pipeline/QSTransferPlan.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/Date.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "platform/Path.h"

namespace {

// The longest pause between two looks at an empty queue (queueing ends it).
constexpr uint32_t kPauseMicroseconds = 100000;

const char* const kEntryNotifications[] = {
    QSVersionDepthChangedNotification, QSScheduledCategoriesChangedNotification, QSScheduledStatusChangedNotification,
    QSMountPointChangedNotification,   QSPersistentStatusChangedNotification,
};

}  // namespace

QSPerUIDEnvironment::QSPerUIDEnvironment(Passkey, std::shared_ptr<QSUserEnvironment> userEnvironment, std::string uid,
                                         const QSPipelineHost* host, platform::NotificationCenter* center)
    : uid_(std::move(uid)),
      userEnvironment_(std::move(userEnvironment)),
      client_(userEnvironment_->client()),
      host_(host),
      sleep_([this](uint32_t microseconds) { idle_.sleep(microseconds); }),
      center_(center ? center : &platform::NotificationCenter::defaultCenter()) {
  categoryFilter_.set(std::make_shared<const std::set<std::string>>());
}

QSPerUIDEnvironment::~QSPerUIDEnvironment() {
  for (const auto id : observers_) center_->removeObserver(id);
  stopObservingClient();
}

std::shared_ptr<QSPerUIDEnvironment> QSPerUIDEnvironment::initWithUserEnvironment_uid(
    std::shared_ptr<QSUserEnvironment> userEnvironment, std::string uid, const QSPipelineHost* host,
    platform::NotificationCenter* center) {
  auto environment = std::make_shared<QSPerUIDEnvironment>(Passkey(), std::move(userEnvironment), std::move(uid), host,
                                                           center);
  environment->observe(environment->center_);
  environment->setStage(kStageFinished);
  return environment;
}

void QSPerUIDEnvironment::observe(platform::NotificationCenter* center) {
  const std::weak_ptr<QSPerUIDEnvironment> weak = self<QSPerUIDEnvironment>();
  for (const char* name : kEntryNotifications) {
    observers_.push_back(center->addObserver(name, nullptr, [weak](const platform::Notification& notification) {
      if (auto environment = weak.lock()) environment->consumeNotification(notification);
    }));
  }
  std::lock_guard<std::recursive_mutex> userLock(userEnvironment_->monitor());
  userEnvironment_->addObserver_forKeyPath_options_context(this, "client", platform::kKeyValueObservingOptionNew,
                                                           nullptr);
  observingClient_ = true;
}

void QSPerUIDEnvironment::stopObservingClient() {
  // Once the removal returns no observation call is under way (the
  // observable waits for one in progress).
  if (!observingClient_.exchange(false)) return;
  userEnvironment_->removeObserver_forKeyPath(this, "client");
}

void QSPerUIDEnvironment::start() {
  auto thread = platform::OVThread::detachNewThread([self = self<QSPerUIDEnvironment>()] { self->run(); }, "uid " + uid_);
  // The new thread records itself under the lock too, perhaps at this very moment.
  std::lock_guard<std::recursive_mutex> lock(lock_);
  thread_ = std::move(thread);
}

bool QSPerUIDEnvironment::stopThread(std::chrono::milliseconds timeout) {
  cancel();
  std::shared_ptr<platform::OVThread> thread;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    thread = thread_;
  }
  return !thread || thread->waitUntilFinished(timeout);
}

bool QSPerUIDEnvironment::enqueue(const std::shared_ptr<QSToken>& token) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (queue_.count() != 0) {
    platform::Log::format("%s Unable to enqueue", __PRETTY_FUNCTION__);
    return false;
  }
  queue_.enqueue(token);
  isPipeCancelled_.store(false);
  idle_.wake();
  return true;
}

void QSPerUIDEnvironment::cancelPipe() {
  std::vector<std::shared_ptr<QSToken>> dropped;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    isPipeCancelled_.store(true);
    jobCancelled_.store(true);
    // The queue is emptied at once, so that the next request is taken while
    // the cancelled job winds down; a token whose job had not begun ends here.
    queue_.enumerate([&](std::shared_ptr<QSToken>& token) {
      if (token != jobToken_) dropped.push_back(token);
    });
    queue_.removeAllObjects();
  }
  for (const auto& token : dropped) token->endCancelled();
}

void QSPerUIDEnvironment::cancel() {
  cancelPipe();
  cancelRequested_.store(true);
  idle_.wake();
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (thread_) thread_->cancel();
}

bool QSPerUIDEnvironment::threadCancelled() const { return cancelRequested_.load(); }

void QSPerUIDEnvironment::dischargePipe() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  // Only the job's own token: after a cancel the queue may already hold the
  // next request, which is neither run nor removed here.
  if (!jobToken_ || queue_.front().value_or(nullptr) != jobToken_) return;
  if (!jobCancelled_.load()) jobToken_->runWithObject(*this);
  queue_.dequeue();
}

std::shared_ptr<QSToken> QSPerUIDEnvironment::currentToken() const { return queue_.front().value_or(nullptr); }

int32_t QSPerUIDEnvironment::stage() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return stage_;
}

void QSPerUIDEnvironment::setStage(int32_t stage) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  stage_ = stage;
}

void QSPerUIDEnvironment::setCategoryFilter(std::set<std::string> categories) {
  categoryFilter_.set(std::make_shared<const std::set<std::string>>(std::move(categories)));
}

void QSPerUIDEnvironment::setDestinationDirectory(std::optional<std::string> path) {
  destinationPath_.set(path ? std::make_shared<const std::string>(std::move(*path)) : nullptr);
}

void QSPerUIDEnvironment::run() {
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    thread_ = platform::OVThread::currentThread();
  }
  for (;;) {
    isPipeCancelled_.store(false);
    waitForWork();
    setStage(kStageHousekeeping);
    platform::Log::line("+++ housekeeping");
    if (const auto token = currentToken()) {
      runJobWithToken(token);
      // The job's tree (the largest object of a backup) is gone: the pages
      // it held go back to the system rather than staying with the engine
      // until the next backup.
      platform::Memory::releaseFreedMemory();
    }
    if (threadCancelled()) return;
  }
}

bool QSPerUIDEnvironment::beginJob(const std::shared_ptr<QSToken>& token) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  // A cancel that came before the job began has taken the token off the queue.
  if (!token || queue_.front().value_or(nullptr) != token) return false;
  jobToken_ = token;
  jobCancelled_.store(false);
  transferPlan_.reset();
  destinationMark_.reset();
  noWorkTally_.reset();
  errorCount_ = 0;
  report_ = std::make_unique<QSJobReport>(uid_);
  return true;
}

void QSPerUIDEnvironment::waitForWork() {
  uint64_t idlePolls = 0;
  while (queue_.count() == 0 && !threadCancelled()) {
    if (!host_ || !host_->supportsContinuousBackup()) {
      sleep_(kPauseMicroseconds);
      continue;
    }
    realtimePolls_.fetch_add(1);
    if (auto event = fsEventQueue_.dequeue()) {
      processRealtimeEvent(*event);
      realtimeProcessed_.fetch_add(1);
      idlePolls = 0;
    } else if (++idlePolls > kBusyPolls) {
      sleep_(kPauseMicroseconds);
    }
  }
}

void QSPerUIDEnvironment::runJobWithToken(const std::shared_ptr<QSToken>& token) {
  if (!beginJob(token)) return;
  std::shared_ptr<QSFSMutableNode> tree;
  std::shared_ptr<QSMutableTally> tally;
  token->getTree_tally(&tree, &tally);
  // The token may outlive the job (its requester holds it): it keeps no tree.
  token->setTree_tally(nullptr, tally);
  if (!tree) tree = QSFSMutableNode::initWithPath("/");
  if (!tally) tally = QSMutableTally::init();
  setTally(tally);
  root_ = tree;
  const std::string destination = token->destinationPath().value_or(std::string());
  traits_ = QSDestinationTraits::probe(destination);
  platform::FileAttributes attributes;
  destinationDevice_.reset();
  destinationInode_.reset();
  if (platform::FileManager::attributesAtPath(destination, &attributes)) {
    destinationDevice_ = attributes.device;
    destinationInode_ = attributes.inode;
  }

  runDestinationTallyWithToken(token);
  // A request that piggybacks on this count may still turn it into a backup
  // up to this point, under the lock.
  bool wantsBackup;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    wantsBackup = token->wantsBackup();
  }
  if (wantsBackup) runBackupWithToken(token);
  if (!token->settledPass()) keepOrForgetSettledPass(token);
  const QSBackupOutcome outcome = report_->outcome(wantsBackup, jobCancelled_.load(), this->tally().get());
  // The token is run again before the queue is emptied: running it is what
  // tells the server that this destination's backup is complete.
  dischargePipe();
  endJob();
  token->endWithOutcome(outcome);
}

void QSPerUIDEnvironment::keepOrForgetSettledPass(const std::shared_ptr<QSToken>& token) {
  const std::string home = userEnvironment_->userHome();
  const std::string destination = token->destinationPath().value_or(std::string());
  const auto source = token->sourceWalk();
  const auto currentTally = tally();
  const bool settled = noWorkTally_ && source && destinationMark_ && destinationDevice_ && destinationInode_ &&
                       !jobCancelled_.load() && errorCount_ == 0 && currentTally &&
                       currentTally->transferMap()->count() == 0 &&
                       source->exclusionExpression == noWorkSettings_.exclusionExpression;
  if (!settled) {
    QSSettledPasses::shared().forget(home, destination);
    return;
  }
  auto pass = std::make_shared<QSSettledPass>();
  pass->home = home;
  pass->destination = destination;
  pass->homeMark = source->mark;
  pass->destinationMark = *destinationMark_;
  pass->device = *destinationDevice_;
  pass->inode = *destinationInode_;
  pass->settings = noWorkSettings_;
  pass->tally = noWorkTally_;
  QSSettledPasses::shared().keep(std::move(pass));
}

void QSPerUIDEnvironment::endJob() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (jobToken_ && queue_.front().value_or(nullptr) == jobToken_) queue_.dequeue();
  jobToken_.reset();
  stage_ = kStageFinished;
  root_.reset();
  transferPlan_.reset();
  tally_.set(nullptr);
}

std::unique_ptr<QSTransferInstrument> QSPerUIDEnvironment::makeInstrument(const std::shared_ptr<QSToken>& token,
                                                                          bool dryRun) {
  auto instrument = QSTransferInstrument::initWithSourcePath_destinationPath_categoryFilter_tally_versionDepth(
      userEnvironment_->userHome(), token->destinationPath().value_or(std::string()), token->context(), tally(),
      token->versionDepth());
  instrument->setDryRun(dryRun);
  instrument->setDelegate(this);
  instrument->setDestinationTraits(traits_);
  instrument->setDestinationDevice(destinationDevice_);
  instrument->setTerminationFlag(&jobCancelled_);
  return instrument;
}

// Each step tells the client and then records the stage, as the job's
// stages go; the client is called outside the environment's lock, so a
// client that calls the engine back (to cancel, say) before it answers
// never holds up another thread.
void QSPerUIDEnvironment::runDestinationTallyWithToken(const std::shared_ptr<QSToken>& token) {
  client_->startedDestinationTally_withUID(tally(), uid_);
  setStage(kStageDestinationTally);
  if (const auto settled = token->settledPass()) {
    // Nothing changed since a pass that found nothing to do: its counts
    // stand, and there is no plan (the tree is the bare top folder).
    settled->addDestinationCountsTo(*tally());
    client_->finishedDestinationTally_withUID(tally(), uid_);
    setStage(kStageDestinationTallyDone);
    return;
  }
  const std::string destination = token->destinationPath().value_or(std::string());
  std::shared_ptr<const QSRecordedWalk> recorded;
  if (auto prefetch = token->takeDestinationPrefetch()) {
    std::string why;
    recorded = prefetch->take(destination, &jobCancelled_, &why);
    if (!recorded && !jobCancelled_.load())
      platform::Log::format("Backup folder read ahead of time not used (%s): reading %s now", why.c_str(),
                            destination.c_str());
  }
  if (recorded) {
    recorded->playTo(*this, &jobCancelled_);
    destinationMark_ = recorded->journalMark();
  } else {
    const auto cache = QSCreationDateCache::forBackupFolder(destination);
    FSDestinationTraversal traversal(&jobCancelled_);
    traversal.setCreationDateCache(cache);
    QSWarmWalk warm(traversal, destination, platform::Date::now().timeIntervalSince1970());
    traversal.recurseAtDestinationPath_withVisitor(destination, *this);
    warm.finish();
    cache->keep();
    if (!traversal.wasStopped()) destinationMark_ = warm.mark();
  }
  auto instrument = makeInstrument(token, true);
  if (!host_ || !host_->skipTransfer()) {
    QSFSDepthFirstTreeTraversal walk(&jobCancelled_);
    walk.traverseTree_withVisitor(root_, *instrument);
    transferPlan_ = instrument->plan();
    if (transferPlan_ && !transferPlan_->hasWork() && !jobCancelled_.load()) {
      noWorkTally_ = tally()->copy();
      const auto filter = userEnvironment_->exclusionFilter();
      noWorkSettings_ = {filter ? std::optional<std::string>(filter->expression()) : std::nullopt, token->context(),
                         token->versionDepth()};
    }
  }
  client_->finishedDestinationTally_withUID(tally(), uid_);
  setStage(kStageDestinationTallyDone);
}

void QSPerUIDEnvironment::runBackupWithToken(const std::shared_ptr<QSToken>& token) {
  client_->startedTransferTally_withUID(tally(), uid_);
  setStage(kStageTransfer);
  auto instrument = makeInstrument(token, false);
  if (!host_ || host_->planTransfers()) instrument->setPlan(std::move(transferPlan_));
  // A pass standing on one without work has nothing to copy, and writes nothing.
  if ((!host_ || !host_->skipTransfer()) && !jobCancelled_.load() && !token->settledPass()) {
    const QSBackupFolderWrites::Scope writing;
    QSFSDepthFirstTreeTraversal walk(&jobCancelled_);
    walk.traverseTree_withVisitor(root_, *instrument);
    // Copies are not flushed one by one; one sync of the disk makes them durable.
    platform::FileManager::synchronizeFileSystemAtPath(token->destinationPath().value_or(std::string()));
  }
  client_->finishedTransferTally_withUID(tally(), uid_);
  setStage(kStageTransferDone);
}

void QSPerUIDEnvironment::transferInstrument_error(QSTransferInstrument& instrument,
                                                   const std::shared_ptr<QSBackupError>& error) {
  ++errorCount_;
  if (report_) report_->failedCopy(*error, QSJobReport::reasonFor(*error, instrument.copyError()));
  const uint64_t limit = userEnvironment_->maximumContiguousErrorsClientWants();
  if (limit != 0 && instrument.contiguousFailedCopyCount() > static_cast<int64_t>(limit)) {
    if (report_) report_->stoppedAfterFailures(instrument.contiguousFailedCopyCount() + 1, limit);
    cancelPipe();
    client_->stoppedDueToErrorsForBackup(uid_);
    return;
  }
  error->setUID(uid_);
  client_->error(*error);
}

void QSPerUIDEnvironment::consumeNotification(const platform::Notification& notification) {
  const auto entry = notification.objectAs<QSBackupEntry>();
  if (!entry || entry->uid() != uid_) return;
  const std::string& name = notification.name;
  if (name == QSVersionDepthChangedNotification) {
    setVersionDepth(entry->versionDepth());
  } else if (name == QSScheduledCategoriesChangedNotification) {
    setCategoryFilter(entry->scheduledCategories());
  } else if (name == QSScheduledStatusChangedNotification) {
    setScheduled(entry->isScheduled());
  } else if (name == QSMountPointChangedNotification) {
    if (entry->mountPoint().empty()) return;
    const std::string folder = platform::appendingPathComponent(entry->mountPoint(), kBackupDestinationDirectoryName);
    bool isDirectory = false;
    if (platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(folder, &isDirectory, false) && isDirectory)
      setDestinationDirectory(platform::appendingPathComponent(folder, uid_));
  }
}

void QSPerUIDEnvironment::observeValueForKeyPath_ofObject_change_context(const std::string& keyPath,
                                                                         const platform::KeyValueObservable* object,
                                                                         const platform::KeyValueChangeInfo&, void*) {
  if (keyPath != "client" || object != userEnvironment_.get()) return;
  // The stage is read under the lock; the client is called after leaving it.
  const int32_t stage = this->stage();
  if (stage == kStageDestinationTally)
    client_->computingDestinationTally_withUID(tally(), uid_);
  else if (stage == kStageTransfer)
    client_->computingTransferTally_withUID(tally(), uid_);
}

std::shared_ptr<QSFSNode> QSPerUIDEnvironment::nodeAtPath_attributes(const std::string& path,
                                                                     const platform::FileAttributes& attributes) {
  const QSFSFileAttributes record = QSFSFileAttributes::fromFileAttributes(attributes);
  if (nodeStack_.size() == 0) {
    root_->setDestinationAttributes(record);
    return root_;
  }
  auto parent = QSFSMutableNode::from(nodeStack_.top());
  const std::string_view name = platform::lastPathComponentView(path);
  auto child = parent->childWithName(name);
  if (!child) {
    child = QSFSMutableNode::initWithPath(name);
    parent->addNode(child);
  }
  QSFSMutableNode::from(child)->setDestinationAttributes(record);
  return child;
}

std::shared_ptr<QSFSNode> QSPerUIDEnvironment::groupNodeAtPath_versions(const std::string& path,
                                                                        const QSFSVersionArray& versions) {
  if (nodeStack_.size() == 0 || versions.empty()) return nullptr;
  auto parent = QSFSMutableNode::from(nodeStack_.top());
  const std::string_view name = platform::lastPathComponentView(path);
  auto child = parent->childWithName(name);
  if (!child) {
    child = QSFSMutableNode::initWithFileName_versions(name, &versions);
    parent->addNode(child);
  }
  auto node = QSFSMutableNode::from(child);
  node->setVersions(versions);
  const auto& latest = node->latestVersion();
  if (!latest) return node;
  const QSCategoryMask mask = nodeStack_.applicableCategoryMask(name);
  const auto tally = this->tally();
  for (size_t i = 0; i < kAllCategories.size(); ++i)
    if (mask & (1u << i)) tally->tallyFileOfSize_forDestinationCategory(latest->attributes().size, kAllCategories[i]);
  return node;
}
