#include "Engine/pipeline/QSUserEnvironment.h"

#include "Engine/files/FSSourceTraversal.h"
#include "Engine/files/QSSourceTreeBuilder.h"
#include "Engine/files/QSWarmWalk.h"
#include "Engine/pipeline/QSDestinationPrefetch.h"
#include "Engine/pipeline/QSSettledPasses.h"
#include "platform/Date.h"
#include "platform/Log.h"

QSUserEnvironment::QSUserEnvironment(Passkey, std::string name, std::string homeDir)
    : homeDir_(std::move(homeDir)), name_(std::move(name)), client_(QSSkerrowClientProxy::init()),
      sleep_([this](uint32_t microseconds) { idle_.sleep(microseconds); }) {}

QSUserEnvironment::~QSUserEnvironment() = default;

std::shared_ptr<QSUserEnvironment> QSUserEnvironment::initWithUserName_homeDirectory(std::string name,
                                                                                    std::string homeDir) {
  return std::make_shared<QSUserEnvironment>(Passkey(), std::move(name), std::move(homeDir));
}

void QSUserEnvironment::start() {
  platform::OVThread::detachNewThread([self = self<QSUserEnvironment>()] { self->run(); }, "user " + name_);
}

void QSUserEnvironment::run() {
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    thread_ = platform::OVThread::currentThread();
  }
  do {
    isPipeCancelled_.store(false);
    while (queueCount_.load() == 0) {
      if (stopRequested_.load()) return;
      sleep_(kIdleSleepMicroseconds);
    }
    runCycle();
  } while (!isCancelled_.load() && !stopRequested_.load());
}

bool QSUserEnvironment::stopThread(std::chrono::milliseconds timeout) {
  stopRequested_.store(true);
  cancel();
  idle_.wake();
  std::shared_ptr<platform::OVThread> thread;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    thread = thread_;
  }
  return !thread || thread->waitUntilFinished(timeout);
}

void QSUserEnvironment::runCycle() {
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    tally_ = QSMutableTally::init();
    root_ = QSFSMutableNode::initWithPath("/");
    sourceWalk_.reset();
    walkCancelled_.store(isPipeCancelled_.load());
    cancelledTokens_ = walkCancelled_.load() ? queue_.size() : 0;
  }
  const auto settled = walkCancelled_.load() ? nullptr : settle();
  if (settled)
    runSettledSourceTally(*settled);
  else
    runSourceTally();
  std::vector<std::shared_ptr<QSToken>> dropped;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    if (walkCancelled_.load()) {
      // The tree is partial: the tokens the cancel applied to are dropped,
      // and those queued since wait for a cycle of their own.
      const auto end = queue_.begin() + static_cast<std::ptrdiff_t>(std::min(cancelledTokens_, queue_.size()));
      dropped.assign(queue_.begin(), end);
      queue_.erase(queue_.begin(), end);
    } else if (settled) {
      // Only the sealed token has a count (unless it was taken off the
      // queue meanwhile); the others wait for the next cycle.
      if (!queue_.empty() && queue_.front() == sealedToken_) {
        if (!isPipeCancelled_.load()) dispatchQueuedTokens(settled);
        queue_.erase(queue_.begin());
      }
    } else {
      if (!isPipeCancelled_.load()) dispatchQueuedTokens(nullptr);
      queue_.clear();
    }
    sealedToken_.reset();
    queueCount_.store(queue_.size());
    walkCancelled_.store(false);
    cancelledTokens_ = 0;
    root_.reset();
    tally_.reset();
    sourceWalk_.reset();
  }
  for (const auto& token : dropped) token->endCancelled();
}

std::shared_ptr<QSToken> QSUserEnvironment::settleCandidate(QSSettledPass::Settings* settings) const {
  if (queue_.size() != 1 || !queue_.front()->wantsDestinationTally()) return nullptr;
  const auto& token = queue_.front();
  const auto destination = token->destinationPath();
  if (!destination || destination->empty()) return nullptr;
  settings->exclusionExpression =
      exclusionFilter_ ? std::optional<std::string>(exclusionFilter_->expression()) : std::nullopt;
  settings->categories = token->context();
  settings->versionDepth = token->versionDepth();
  return token;
}

std::shared_ptr<const QSSettledPass> QSUserEnvironment::settle() {
  QSSettledPass::Settings settings;
  std::shared_ptr<QSToken> candidate;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    candidate = settleCandidate(&settings);
  }
  std::shared_ptr<const QSSettledPass> settled;
  const std::string destination = candidate ? candidate->destinationPath().value_or(std::string()) : std::string();
  if (candidate)
    settled = QSSettledPasses::shared().standing(homeDir_, destination, settings,
                                                 platform::Date::now().timeIntervalSince1970());
  std::lock_guard<std::recursive_mutex> lock(lock_);
  // A request may have merged into the token while the journal was asked.
  QSSettledPass::Settings now;
  if (settled && (walkCancelled_.load() || settleCandidate(&now) != candidate || !(now == settings) ||
                  candidate->destinationPath().value_or(std::string()) != destination))
    settled.reset();
  if (settled)
    sealedToken_ = candidate;
  else if (!walkCancelled_.load()) {
    startDestinationPrefetches();
  }
  return settled;
}

void QSUserEnvironment::runSettledSourceTally(const QSSettledPass& pass) {
  std::shared_ptr<QSMutableTally> tally;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    tally = tally_;
  }
  platform::Log::format("Nothing changed in %s nor in %s since the last pass, which found nothing to do: its counts "
                        "stand, and neither folder is walked",
                        pass.home.c_str(), pass.destination.c_str());
  client_->startedSourceTally(tally);
  pass.addSourceCountsTo(*tally);
  client_->finishedSourceTally(tally);
}

void QSUserEnvironment::startDestinationPrefetches() {
  // Each backup folder is walked on a thread of its own while the home
  // folder is counted here; the second stage plays the walk back when it
  // still stands.  Tokens that join during the count walk their folder in
  // the second stage, as ever.
  for (const auto& token : queue_) {
    if (!token->wantsDestinationTally()) continue;
    const auto destination = token->destinationPath();
    if (destination && !destination->empty()) token->setDestinationPrefetch(QSDestinationPrefetch::start(*destination));
  }
}

void QSUserEnvironment::dispatchQueuedTokens(const std::shared_ptr<const QSSettledPass>& settled) {
  struct Exposure {
    bool& flag;
    explicit Exposure(bool& f) : flag(f) { flag = true; }
    ~Exposure() { flag = false; }
  };
  // Tokens are taken by index: running one may queue another.  A cycle
  // that stands on a settled pass serves its first token alone.
  const auto end = [&] { return settled ? std::min<size_t>(1, queue_.size()) : queue_.size(); };
  for (size_t i = 0; i < end(); ++i) {
    const std::shared_ptr<QSToken> token = queue_[i];
    if (token->wantsDestinationTally()) {
      // Each token gets a tree of its own.  The last one takes the cycle's
      // tree itself, which nobody reads after it: a home folder's tree is
      // the largest object of a backup, and one copy fewer halves the peak.
      std::shared_ptr<QSFSMutableNode> tree;
      if (root_) tree = i + 1 == end() ? std::exchange(root_, nullptr) : root_->deepCopy();
      token->setTree_tally(std::move(tree), tally_->mutableCopy());
      token->setSourceWalk(sourceWalk_);
      token->setSettledPass(settled);
    }
    Exposure exposed(isProductExposed_);
    token->runWithObject(*this);
  }
}

void QSUserEnvironment::enqueue(const std::shared_ptr<QSToken>& token) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (token->wantsDestinationTally()) {
    const auto uid = token->uid();
    for (const auto& queued : queue_) {
      // The token of a cycle standing on a settled pass takes no changes.
      if (queued == sealedToken_) continue;
      const auto queuedUID = queued->uid();
      if (queuedUID && queuedUID != uid) continue;
      queued->setDestinationPath_uid(token->destinationPath(), uid);
      queued->setWantsBackup(token->wantsBackup());
      queued->setVersionDepth(token->versionDepth());
      if (token->wantsBackup()) queued->setContext(token->context());
      return;
    }
    append(token);
  } else if (queue_.empty()) {
    append(token);
  }
}

void QSUserEnvironment::append(const std::shared_ptr<QSToken>& token) {
  queue_.push_back(token);
  queueCount_.store(queue_.size());
  isPipeCancelled_.store(false);
  idle_.wake();
}

void QSUserEnvironment::setClient(std::shared_ptr<QSBackupClientProtocol> client) {
  // The client is asked, and the change announced (observers call the new
  // client), outside the environment's lock: no client is ever called while
  // a pipeline lock is held.
  const uint64_t limit = client ? client->maximumContiguousErrorsClientWants() : kDefaultErrorLimit;
  willChangeValueForKey("client");
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    client_->setProxiedObject(std::move(client));
    clientRegistrationTime_.store(platform::Date::now().timeIntervalSinceReferenceDate());
    maximumContiguousErrorsClientWants_.store(limit);
  }
  didChangeValueForKey("client");
}

std::shared_ptr<QSSkerrowClientProxy> QSUserEnvironment::client() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return client_;
}

void QSUserEnvironment::getClient_registrationTime(std::shared_ptr<QSSkerrowClientProxy>* client,
                                                   double* registrationTime) const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (client) *client = client_;
  if (registrationTime) *registrationTime = clientRegistrationTime_.load();
}

std::any QSUserEnvironment::valueForKey(const std::string& key) const {
  if (key == "client") return client_;
  return {};
}

std::shared_ptr<const platform::RegexPredicate> QSUserEnvironment::exclusionFilter() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return exclusionFilter_;
}

void QSUserEnvironment::setExclusionFilter(std::shared_ptr<const platform::RegexPredicate> filter) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  exclusionFilter_ = std::move(filter);
}

void QSUserEnvironment::runSourceTally() {
  std::shared_ptr<QSMutableTally> tally;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    tally = tally_;
  }
  client_->startedSourceTally(tally);
  FSSourceTraversal traversal(&walkCancelled_);
  QSWarmWalk warm(traversal, homeDir_, platform::Date::now().timeIntervalSince1970());
  const auto filter = exclusionFilter();
  traversal.recurseAtUserHome_withExclusionPredicate_visitor(homeDir_, filter, *this);
  client_->finishedSourceTally(tally);
  warm.finish();
  const auto mark = warm.mark();
  if (!mark || traversal.wasStopped()) return;
  std::lock_guard<std::recursive_mutex> lock(lock_);
  sourceWalk_ = QSToken::SourceWalk{*mark, filter ? std::optional<std::string>(filter->expression()) : std::nullopt};
}

void QSUserEnvironment::startTraversalOfPath(const std::string& path) {
  double registrationTime = 0;
  getClient_registrationTime(nullptr, &registrationTime);
  cachedClientRegistrationTime_ = registrationTime;
  FSDepthFirstVisitor::startTraversalOfPath(path);
}

std::shared_ptr<QSFSNode> QSUserEnvironment::nodeAtPath_attributes(const std::string& path,
                                                                   const platform::FileAttributes& attributes) {
  auto node = QSSourceTreeBuilder::sourceNode(nodeStack_, root_, *tally_, path, attributes);
  // A client that attached during the walk gets the count so far at once.
  const double registrationTime = clientRegistrationTime_.load();
  if (registrationTime != cachedClientRegistrationTime_) client_->computingSourceTally(tally_);
  cachedClientRegistrationTime_ = registrationTime;
  return node;
}

void QSUserEnvironment::getDeepCopyOfSourceTree_copyOfSourceTally(std::shared_ptr<QSFSMutableNode>* tree,
                                                                  std::shared_ptr<QSMutableTally>* tally) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  const bool exposed = isProductExposed_ && root_ && tally_;
  if (tree) *tree = exposed ? root_->deepCopy() : nullptr;
  if (tally) *tally = exposed ? tally_->mutableCopy() : nullptr;
}

void QSUserEnvironment::cancelPipe() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  isPipeCancelled_.store(true);
  walkCancelled_.store(true);
  cancelledTokens_ = queue_.size();
}

std::shared_ptr<QSToken> QSUserEnvironment::cancelPipeForUID(const std::string& uid) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  for (auto it = queue_.begin(); it != queue_.end(); ++it) {
    if ((*it)->uid() != uid) continue;
    auto removed = *it;
    const bool wasOnly = queue_.size() == 1;
    queue_.erase(it);
    queueCount_.store(queue_.size());
    if (wasOnly) cancelPipe();
    return removed;
  }
  return nullptr;
}

void QSUserEnvironment::cancel() {
  isPipeCancelled_.store(true);
  walkCancelled_.store(true);
  isCancelled_.store(true);
}

void QSUserEnvironment::conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) {
  client_->conversionChangedState_forMountPath(state, mountPath);
}
