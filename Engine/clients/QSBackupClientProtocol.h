// What the engine calls on a front-end client (through its
// QSSkerrowClientProxy, never directly), and the conversion notice that
// stages and converters pass on.
//
// Tallies go by reference: the client reads the engine's own tally object,
// which keeps counting while the client looks.  Error records go by copy.
// A client that has gone away raises platform::Exception from any call.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Engine/records/QSBackupError.h"
#include "Engine/records/QSTally.h"

class QSBackupConversionChangedNotificationProtocol {
 public:
  virtual ~QSBackupConversionChangedNotificationProtocol() = default;
  // A legacy conversion on the volume at `mountPath` reached the state named `state`.
  virtual void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) = 0;
};

class QSBackupClientProtocol : public QSBackupConversionChangedNotificationProtocol {
 public:
  using Tally = std::shared_ptr<QSTally>;

  // The count of the user's home folder starts, progresses, ends.
  virtual void startedSourceTally(const Tally& tally) = 0;
  virtual void computingSourceTally(const Tally& tally) = 0;
  virtual void finishedSourceTally(const Tally& tally) = 0;
  // The count of one backup's folder.
  virtual void startedDestinationTally_withUID(const Tally& tally, const std::string& uid) = 0;
  virtual void computingDestinationTally_withUID(const Tally& tally, const std::string& uid) = 0;
  virtual void finishedDestinationTally_withUID(const Tally& tally, const std::string& uid) = 0;
  // The copy into one backup's folder.
  virtual void startedTransferTally_withUID(const Tally& tally, const std::string& uid) = 0;
  virtual void computingTransferTally_withUID(const Tally& tally, const std::string& uid) = 0;
  virtual void finishedTransferTally_withUID(const Tally& tally, const std::string& uid) = 0;
  // One file changed in real time is copied.
  virtual void startedRealtimeTransferOfFile_to(const std::string& source, const std::string& destination) = 0;
  virtual void finishedRealtimeTransferOfFile_to_withResult(const std::string& source, const std::string& destination,
                                                            bool result) = 0;
  // One-way: a file could not be copied.
  virtual void error(const QSBackupError& error) = 0;
  // A backup was stopped after too many failed copies in a row.
  virtual void stoppedDueToErrorsForBackup(const std::string& uid) = 0;
  // How many failed copies in a row the client tolerates; 0: never stop.
  virtual uint64_t maximumContiguousErrorsClientWants() = 0;
  // Who the client runs for.
  virtual std::string userHome() = 0;
  virtual std::string shortUserName() = 0;
  virtual std::string longUserName() = 0;
};
