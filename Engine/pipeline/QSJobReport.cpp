#include "Engine/pipeline/QSJobReport.h"

#include <cstring>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/Format.h"
#include "platform/Log.h"

std::string QSJobReport::reasonFor(const QSBackupError& error, const platform::FileError& copyError) {
  // A folder that could not be made carries no source path and its own message.
  if (!error.sourcePath() || copyError.code == 0) return error.message();
  return std::strerror(copyError.code);
}

QSJobReport::QSJobReport(std::string uid) : uid_(std::move(uid)), started_(platform::Date::now()) {}

void QSJobReport::failedCopy(const QSBackupError& error, const std::string& reason) {
  ++failedFiles_;
  ++reasons_[reason];
  const std::string& path = error.sourcePath() ? *error.sourcePath() : error.destinationPath();
  platform::Log::event(platform::LogPriority::Warning,
                       platform::format("Backup %s could not copy %s: %s", uid_.c_str(), path.c_str(), reason.c_str()),
                       {{kBackupUIDField, uid_}, {"SKERROW_PATH", path}, {"SKERROW_REASON", reason}});
}

void QSJobReport::stoppedAfterFailures(int64_t contiguous, uint64_t limit) {
  stopped_ = true;
  platform::Log::event(platform::LogPriority::Error,
                       platform::format("Backup %s stopped after %lld failed copies in a row (the limit is %llu)",
                                        uid_.c_str(), static_cast<long long>(contiguous),
                                        static_cast<unsigned long long>(limit)),
                       {{kBackupUIDField, uid_}});
}

QSBackupOutcome QSJobReport::outcome(bool wasBackup, bool cancelled, const QSTally* tally) const {
  QSBackupOutcome outcome;
  outcome.uid = uid_;
  outcome.kind = wasBackup ? QSBackupOutcome::Kind::Backup : QSBackupOutcome::Kind::Count;
  outcome.state = stopped_                ? QSBackupOutcome::State::Stopped
                  : cancelled             ? QSBackupOutcome::State::Cancelled
                  : failedFiles_ > 0      ? QSBackupOutcome::State::CompletedWithFailures
                                          : QSBackupOutcome::State::Completed;
  outcome.started = started_;
  outcome.ended = platform::Date::now();
  if (tally) {
    // Summed over the categories: each copied file is counted in one of them.
    for (const char* category : kAllCategories) {
      int64_t files = 0, bytes = 0;
      tally->getTransferredFileCount_byteCount_forCategory(&files, &bytes, category);
      outcome.filesCopied += files;
      outcome.bytesCopied += bytes;
      tally->getExpectedFileCount_byteCount_forCategory(&files, &bytes, category);
      outcome.filesExpected += files;
      outcome.bytesExpected += bytes;
    }
  }
  outcome.failedFiles = failedFiles_;
  for (const auto& [reason, count] : reasons_) {
    if (count > outcome.commonFailureCount) {
      outcome.commonFailure = reason;
      outcome.commonFailureCount = count;
    }
  }
  return outcome;
}
