// A backup's outcome on the bus (OutcomeWire, see data/com.qsc.skerrow.xml)
// and back.  Reading refuses unknown kinds and states with
// org.freedesktop.DBus.Error.InvalidArgs.
#pragma once

#include <sdbus-c++/Error.h>

#include "Engine/records/QSBackupOutcome.h"
#include "ipc/WireTypes.h"

namespace wire {

inline OutcomeWire toWireOutcome(const QSBackupOutcome& o) {
  return OutcomeWire(o.uid, QSBackupOutcome::kindName(o.kind), QSBackupOutcome::stateName(o.state),
                     o.started.timeIntervalSinceReferenceDate(), o.ended.timeIntervalSinceReferenceDate(),
                     o.filesCopied, o.bytesCopied, o.filesExpected, o.bytesExpected, o.failedFiles, o.commonFailure,
                     o.commonFailureCount, o.sequence);
}

inline QSBackupOutcome fromWireOutcome(const OutcomeWire& w) {
  QSBackupOutcome o;
  o.uid = std::get<0>(w);
  const auto kind = QSBackupOutcome::kindNamed(std::get<1>(w));
  const auto state = QSBackupOutcome::stateNamed(std::get<2>(w));
  if (!kind || !state)
    throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs",
                       "unknown outcome kind or state: " + std::get<1>(w) + ", " + std::get<2>(w));
  o.kind = *kind;
  o.state = *state;
  o.started = platform::Date(std::get<3>(w));
  o.ended = platform::Date(std::get<4>(w));
  o.filesCopied = std::get<5>(w);
  o.bytesCopied = std::get<6>(w);
  o.filesExpected = std::get<7>(w);
  o.bytesExpected = std::get<8>(w);
  o.failedFiles = std::get<9>(w);
  o.commonFailure = std::get<10>(w);
  o.commonFailureCount = std::get<11>(w);
  o.sequence = std::get<12>(w);
  return o;
}

}  // namespace wire
