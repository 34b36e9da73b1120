#include "Engine/pipeline/QSToken.h"

#include <utility>

#include "Engine/pipeline/QSSettledPass.h"

std::shared_ptr<QSToken> QSToken::initWithDelegate(QSTokenDelegate* delegate) {
  auto token = std::make_shared<QSToken>(Passkey());
  token->tokenDelegate_ = delegate;
  return token;
}

template <class Environment>
void QSToken::runWithEnvironment(Environment& environment) {
  runAsCurrent([&] {
    if (tokenDelegate_) tokenDelegate_->runPerDestination(*this, environment);
  });
}

void QSToken::runWithObject(QSUserEnvironment& environment) { runWithEnvironment(environment); }

void QSToken::runWithObject(QSPerUIDEnvironment& environment) { runWithEnvironment(environment); }

void QSToken::endWithOutcome(const QSBackupOutcome& outcome) {
  if (tokenDelegate_ && uid()) tokenDelegate_->tokenDidEnd(*this, outcome);
}

void QSToken::setDestinationPrefetch(std::shared_ptr<QSDestinationPrefetch> prefetch) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  prefetch_ = std::move(prefetch);
}

std::shared_ptr<QSDestinationPrefetch> QSToken::takeDestinationPrefetch() {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return std::exchange(prefetch_, nullptr);
}

void QSToken::setSourceWalk(std::optional<SourceWalk> walk) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  sourceWalk_ = std::move(walk);
}

std::optional<QSToken::SourceWalk> QSToken::sourceWalk() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return sourceWalk_;
}

void QSToken::setSettledPass(std::shared_ptr<const QSSettledPass> pass) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  settledPass_ = std::move(pass);
}

std::shared_ptr<const QSSettledPass> QSToken::settledPass() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return settledPass_;
}

void QSToken::endCancelled() {
  takeDestinationPrefetch();
  const auto identifier = uid();
  if (!identifier) return;
  QSBackupOutcome outcome;
  outcome.uid = *identifier;
  outcome.kind = wantsBackup() ? QSBackupOutcome::Kind::Backup : QSBackupOutcome::Kind::Count;
  outcome.state = QSBackupOutcome::State::Cancelled;
  outcome.started = outcome.ended = platform::Date::now();
  endWithOutcome(outcome);
}

void QSToken::setContext(std::optional<Categories> categories) {
  std::optional<Categories> old;
  std::lock_guard<std::recursive_mutex> lock(lock_);
  old = std::exchange(categories_, std::move(categories));
}

std::optional<QSToken::Categories> QSToken::context() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return categories_;
}

void QSToken::setDestinationPath_uid(std::optional<std::string> destinationPath, std::optional<std::string> uid) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  destinationPath_ = std::move(destinationPath);
  uid_ = std::move(uid);
}

std::optional<std::string> QSToken::destinationPath() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return destinationPath_;
}

std::optional<std::string> QSToken::uid() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return uid_;
}

bool QSToken::wantsDestinationTally() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return destinationPath_.has_value() && uid_.has_value();
}

void QSToken::setTree_tally(std::shared_ptr<QSFSMutableNode> tree, std::shared_ptr<QSMutableTally> tally) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  tree_ = std::move(tree);
  tally_ = std::move(tally);
}

void QSToken::getTree_tally(std::shared_ptr<QSFSMutableNode>* tree, std::shared_ptr<QSMutableTally>* tally) const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (tree) *tree = tree_;
  if (tally) *tally = tally_;
}
