// The server's side of the pipeline traffic: the scheduling timer, the
// requests of clients (start, count, cancel, schedule, unschedule), the
// building of tokens, the hand-over between the stages, the recording of
// finished backups and each user's exclusion filter.
#include <mutex>

#include "Engine/pipeline/QSJobReport.h"
#include "Engine/pipeline/QSToken.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/Log.h"
#include "platform/RegexPredicate.h"

void QSSkerrowServer::callbackForJobSchedulingTimer() {
  timerTicks_.fetch_add(1);
  const double current = now().timeIntervalSinceReferenceDate();
  const std::set<std::string> caughtUp = startBackupsAfterDroppedEvents();
  for (const std::string& uid : backupEntryMap_.allKeys()) {
    const auto entry = backupEntryWithUID(uid);
    if (!entry || !entry->isScheduled() || caughtUp.count(uid)) continue;
    if (!followSchedule_) {
      platform::Log::format("Starting UNSCHEDULED backup for %s", uid.c_str());
      startBackup_forClient(uid, nullptr);
      continue;
    }
    const double due = entry->completionDate().timeIntervalSinceReferenceDate() + entry->period();
    if (current > due) {
      platform::Log::format("Starting a scheduled backup for %s", uid.c_str());
      startBackup_forClient(uid, nullptr);
    } else {
      platform::Log::format("Will start backup %s in %f seconds", uid.c_str(), due - current);
    }
  }
}

void QSSkerrowServer::startBackup_forClient(const std::string& uid, const Client& client) {
  pipelineTokenWithUID_backupFlag_forClient(uid, true, client);
}

void QSSkerrowServer::startTally_forClient(const std::string& uid, const Client& client) {
  pipelineTokenWithUID_backupFlag_forClient(uid, false, client);
}

std::optional<std::string> QSSkerrowServer::shortUserNameOf(const Client& client) const {
  try {
    return client->shortUserName();
  } catch (const platform::Exception&) {
    return std::nullopt;
  }
}

void QSSkerrowServer::pipelineTokenWithUID_backupFlag_forClient(const std::string& uid, bool backup,
                                                                const Client& client) {
  auto token = QSToken::initWithDelegate(this);
  if (client) {
    const auto userName = shortUserNameOf(client);
    if (!userName) return;
    if (uid.empty()) {
      firstStage_->enqueue_forUser(token, *userName);
      return;
    }
    const auto owner = secondStage_->userEnvironmentForUID(uid);
    if (!owner || owner->userName() != *userName) return;
  }
  platform::Log::line("Will try to piggyback if possible");
  token->setDestinationPath_uid(destinationPathForUID(uid), uid);
  token->setWantsBackup(backup);
  const auto environment = secondStage_->environmentForUID(uid);
  const auto userEnvironment = environment ? environment->perUserEnvironment() : nullptr;
  if (!environment || !userEnvironment) return;
  const auto entry = backupEntryWithUID(uid);
  const std::set<std::string> categories = entry ? entry->scheduledCategories() : std::set<std::string>();
  const uint32_t versionDepth = entry ? entry->versionDepth() : 0;

  // The user environment first, then the destination's: the same order as the stage threads.
  std::lock_guard<std::recursive_mutex> userLock(userEnvironment->monitor());
  std::lock_guard<std::recursive_mutex> uidLock(environment->monitor());
  const auto current = environment->currentToken();
  if (current && backup) {
    platform::Log::line("Did piggiback onto source tally");
    current->setWantsBackup(true);
    current->setVersionDepth(versionDepth);
    if (!categories.empty()) current->setContext(categories);
  } else if (backup) {
    if (categories.empty()) return;
    token->setContext(categories);
    token->setVersionDepth(versionDepth);
    userEnvironment->enqueue(token);
  } else {
    userEnvironment->enqueue(token);
  }
}

void QSSkerrowServer::cancelPipe_forClient(const std::string& uid, const Client&) {
  const auto environment = secondStage_->environmentForUID(uid);
  const auto userEnvironment = environment ? environment->perUserEnvironment() : nullptr;
  if (!environment || !userEnvironment) return;
  std::shared_ptr<QSToken> queued;
  {
    std::lock_guard<std::recursive_mutex> userLock(userEnvironment->monitor());
    std::lock_guard<std::recursive_mutex> uidLock(environment->monitor());
    queued = userEnvironment->cancelPipeForUID(uid);
    environment->cancelPipe();
  }
  // A request still waiting for its count of the home folder ends here.
  if (queued) queued->endCancelled();
}

void QSSkerrowServer::rescheduleBackupsForClient_uid_startImmediately(const Client& client, const std::string& uid,
                                                                      bool start) {
  if (!client) return;
  const auto userName = shortUserNameOf(client);
  if (!userName) return;
  const auto entry = backupEntryWithUID(uid);
  if (!entry || entry->shortUserName() != *userName) return;
  entry->setScheduled(true);
  if (start) startBackup_forClient(uid, client);
}

void QSSkerrowServer::rescheduleBackupsForClient_startImmediately(const Client& client, bool start) {
  if (!client) return;
  const auto userName = shortUserNameOf(client);
  if (!userName) return;
  for (const auto& [uid, entry] : backupEntryMap_.snapshot()) {
    if (entry->shortUserName() != *userName) continue;
    entry->setScheduled(true);
    if (start) startBackup_forClient(uid, client);
  }
}

void QSSkerrowServer::cancelAndUnscheduleJobsForClient(const Client& client) {
  if (!client) return;
  const auto userName = shortUserNameOf(client);
  if (!userName) return;
  firstStage_->cancelPipeForUser(*userName);
  secondStage_->cancelPipeForUser(*userName);
  for (const auto& [uid, entry] : backupEntryMap_.snapshot())
    if (entry->shortUserName() == *userName) entry->setScheduled(false);
}

void QSSkerrowServer::runPerDestination(QSToken& token, QSUserEnvironment&) {
  if (token.wantsDestinationTally())
    secondStage_->enqueue_forUID(token.self<QSToken>(), token.uid().value_or(std::string()));
}

void QSSkerrowServer::runPerDestination(QSToken& token, QSPerUIDEnvironment& environment) {
  if (!token.wantsBackup()) return;
  const std::weak_ptr<QSSkerrowServer> weak = self<QSSkerrowServer>();
  auto finish = [weak, uid = environment.uid()] {
    if (auto server = weak.lock()) server->finishBackupOnMainThreadForUID(uid);
  };
  if (runLoop_) runLoop_->post(std::move(finish));
}

void QSSkerrowServer::tokenDidEnd(QSToken&, const QSBackupOutcome& outcome) {
  // Tokens also end while the server tears its stages down.
  const std::weak_ptr<QSSkerrowServer> weak = weakSelf<QSSkerrowServer>();
  if (weak.expired()) return;
  auto record = [weak, outcome] {
    if (auto server = weak.lock()) server->recordOutcome(outcome);
  };
  if (runLoop_) runLoop_->post(std::move(record));
}

void QSSkerrowServer::recordOutcome(const QSBackupOutcome& outcome) {
  const QSBackupOutcome& kept = outcomes_.record(outcome);
  const bool backup = kept.kind == QSBackupOutcome::Kind::Backup;
  platform::LogPriority priority = platform::LogPriority::Info;
  std::string how;
  switch (kept.state) {
    case QSBackupOutcome::State::Completed: how = "completed"; break;
    case QSBackupOutcome::State::CompletedWithFailures:
      how = "completed with failed copies";
      priority = platform::LogPriority::Warning;
      break;
    case QSBackupOutcome::State::Cancelled:
      how = "was cancelled";
      priority = platform::LogPriority::Notice;
      break;
    case QSBackupOutcome::State::Stopped:
      how = "was stopped after too many failed copies in a row";
      priority = platform::LogPriority::Warning;
      break;
  }
  std::string text = platform::format(
      "%s %s %s: %lld of %lld files copied (%lld of %lld bytes), %lld failed, in %.1f s", backup ? "Backup" : "Count",
      kept.uid.c_str(), how.c_str(), static_cast<long long>(kept.filesCopied),
      static_cast<long long>(kept.filesExpected), static_cast<long long>(kept.bytesCopied),
      static_cast<long long>(kept.bytesExpected), static_cast<long long>(kept.failedFiles),
      kept.ended.timeIntervalSinceDate(kept.started));
  if (kept.failedFiles > 0)
    text += platform::format(" (most often: %s, %lld times)", kept.commonFailure.c_str(),
                             static_cast<long long>(kept.commonFailureCount));
  platform::Log::event(priority, text,
                       {{QSJobReport::kBackupUIDField, kept.uid}, {"SKERROW_OUTCOME", QSBackupOutcome::stateName(kept.state)}});
}

void QSSkerrowServer::finishBackupOnMainThreadForUID(const std::string& uid) {
  const auto entry = backupEntryWithUID(uid);
  if (!entry) return;
  entry->setCompletionDate(now());
  saveBackupDatabase();
}

bool QSSkerrowServer::backupServiceForClient(const Client& client) {
  if (!client) return false;
  const std::string userName = client->shortUserName();
  if (!firstStage_->managesUserName(userName)) {
    if (!firstStage_->addNewUser(userName)) return false;
    watchHomeOfUser(userName);
  }
  const std::weak_ptr<QSSkerrowServer> weak = self<QSSkerrowServer>();
  auto attach = [weak, client, userName] {
    if (auto server = weak.lock()) server->firstStage_->setClient_forUser(client, userName);
  };
  if (runLoop_)
    runLoop_->nextPass(std::move(attach));
  else
    attach();
  return true;
}

std::optional<std::string> QSSkerrowServer::pathSuffixExclusionFilterForClient(const Client& client) const {
  if (!client) return std::nullopt;
  const auto userName = shortUserNameOf(client);
  if (!userName) return std::nullopt;
  const auto it = exclusionFilterMap_.find(*userName);
  if (it == exclusionFilterMap_.end()) return std::nullopt;
  return it->second;
}

bool QSSkerrowServer::installExclusionFilter(const std::string& userName, const std::optional<std::string>& expression) {
  const auto environment = firstStage_->environmentForUser(userName);
  if (!environment) return false;
  environment->setExclusionFilter(expression ? platform::RegexPredicate::selfMatchesCaseInsensitive(*expression)
                                             : nullptr);
  return true;
}

void QSSkerrowServer::setPathSuffixExclusionFilter_forClient(const std::optional<std::string>& expression,
                                                             const Client& client) {
  if (!client) return;
  try {
    const std::string userName = client->shortUserName();
    if (!installExclusionFilter(userName, expression)) return;
    if (expression)
      exclusionFilterMap_[userName] = *expression;
    else
      exclusionFilterMap_.erase(userName);
    saveBackupDatabase();
  } catch (const platform::Exception& e) {
    platform::Log::format("%s", e.description().c_str());
  }
}
