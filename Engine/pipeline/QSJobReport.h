// The account of one job of a per-destination environment: when it began,
// which copies failed and why, whether it was stopped after too many
// failures in a row; and, at its end, the outcome the engine keeps and
// tells clients.
//
// It also writes the job's story to the log, each entry carrying the
// backup's uid in the field SKERROW_BACKUP_UID: every failed copy (path and
// reason) at warning priority, and the stop after too many failures at
// error priority.  Used by the environment's own thread only.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Engine/records/QSBackupError.h"
#include "Engine/records/QSBackupOutcome.h"
#include "Engine/records/QSTally.h"
#include "platform/Date.h"
#include "platform/FileError.h"

class QSJobReport {
 public:
  // Starts the account of a job of the backup `uid` now.
  explicit QSJobReport(std::string uid);

  // One failed copy (or folder creation); `reason` is the system's own words
  // ("No space left on device"), or the record's message when there are none.
  void failedCopy(const QSBackupError& error, const std::string& reason);
  // The backup was stopped after `contiguous` failures in a row.
  void stoppedAfterFailures(int64_t contiguous, uint64_t limit);

  int64_t failedFiles() const { return failedFiles_; }
  bool wasStopped() const { return stopped_; }

  // How the job ended: stopped, cancelled, completed with failures, or
  // completed; what it copied and expected from `tally` (may be null).
  QSBackupOutcome outcome(bool wasBackup, bool cancelled, const QSTally* tally) const;

  // The words to count a failure by: the system's message for a failed file
  // copy (`copyError`), the record's own message for a folder.
  static std::string reasonFor(const QSBackupError& error, const platform::FileError& copyError);

  // The field that ties a log entry to a backup.
  static constexpr const char* kBackupUIDField = "SKERROW_BACKUP_UID";

 private:
  std::string uid_;
  platform::Date started_;
  int64_t failedFiles_ = 0;
  std::map<std::string, int64_t> reasons_;
  bool stopped_ = false;
};
