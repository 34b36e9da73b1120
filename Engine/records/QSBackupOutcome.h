// How a backup's (or a count's) last run ended, as the engine tells its
// clients and keeps across restarts: whether it completed cleanly, completed
// with failed copies, was cancelled or was stopped after too many failures
// in a row; what it copied; how many files failed and the most frequent
// reason.  `sequence` grows with every outcome the engine records, so a
// client can tell the end of the run it follows from an older outcome.
//
// Outcomes live beside the backup database, not in it: the database keeps
// its keys unchanged.  A value type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Date.h"
#include "platform/Value.h"

struct QSBackupOutcome {
  enum class State { Completed, CompletedWithFailures, Cancelled, Stopped };
  enum class Kind { Backup, Count };

  std::string uid;
  Kind kind = Kind::Backup;
  State state = State::Completed;
  platform::Date started;
  platform::Date ended;
  int64_t filesCopied = 0;
  int64_t bytesCopied = 0;
  int64_t filesExpected = 0;
  int64_t bytesExpected = 0;
  int64_t failedFiles = 0;
  std::string commonFailure;  // the most frequent reason of the failed copies ("No space left on device")
  int64_t commonFailureCount = 0;
  uint64_t sequence = 0;

  // "completed", "completed-with-failures", "cancelled", "stopped"; and back.
  static const char* stateName(State state);
  static std::optional<State> stateNamed(const std::string& name);
  // "backup", "count"; and back.
  static const char* kindName(Kind kind);
  static std::optional<Kind> kindNamed(const std::string& name);

  // The property-list form ("state", "kind", "started", ... keys) and back;
  // a dictionary that lacks a key or holds a wrong type reads as nothing.
  platform::Dictionary dictionary() const;
  static std::optional<QSBackupOutcome> fromDictionary(const std::string& uid, const platform::Dictionary& dictionary);

  bool operator==(const QSBackupOutcome& other) const = default;
};
