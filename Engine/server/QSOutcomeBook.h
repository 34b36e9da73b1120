// The last outcome of every backup the engine has run (see QSBackupOutcome),
// kept in "backupoutcomes.plist" beside the backup database so that clients
// are told how a backup last ended after a restart too.  The database file
// keeps its own keys; outcomes never go into it.
//
// Every recorded outcome gets the next sequence number (larger than any
// loaded one).  Used on the main thread only; the file is written
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
  // Forgets a backup the engine no longer manages.
  void forget(const std::string& uid);

 private:
  bool save() const;

  std::string path_;
  std::map<std::string, QSBackupOutcome> outcomes_;
  uint64_t lastSequence_ = 0;
};
