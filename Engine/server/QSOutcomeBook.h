// The last outcome of every backup the engine has run (see QSBackupOutcome),
// kept in "backupoutcomes.plist" beside the backup database so that clients
// are told how a backup last ended after a restart too.  The database file
// keeps its own keys; outcomes never go into it.
//
// Every recorded outcome gets the next sequence number (larger than any
// loaded one).  Beside each backup's last outcome the book keeps its last
// clean one (a backup that completed without a failed copy), so a client
// can name the last good backup even after later runs failed, were
// cancelled or were counts; it is kept in the file inside the last
// outcome's dictionary, under "last-clean-backup".  Used on the main thread only; the file is written
// atomically at each record.  An unreadable file reads as no outcomes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "Engine/records/QSBackupOutcome.h"

class QSOutcomeBook {
 public:
  static constexpr const char* kFileName = "backupoutcomes.plist";

  // Reads the outcomes kept in `folder` (the permanent store directory).
  void loadFromFolder(const std::string& folder);
  // Keeps `outcome` as its backup's last, numbered; answers the kept copy.
  const QSBackupOutcome& record(QSBackupOutcome outcome);
  std::optional<QSBackupOutcome> outcomeForUID(const std::string& uid) const;
  // The last backup of `uid` that completed cleanly, if any.
  std::optional<QSBackupOutcome> lastCleanBackupForUID(const std::string& uid) const;
  // Forgets a backup the engine no longer manages.
  void forget(const std::string& uid);

 private:
  bool save() const;

  std::string path_;
  std::map<std::string, QSBackupOutcome> outcomes_;
  std::map<std::string, QSBackupOutcome> lastClean_;
  uint64_t lastSequence_ = 0;
};
