// What the server asks of a converter of older backup folders, and what a
// converter tells the server.
//
// The server makes one converter per mounted volume as the volume appears,
// starts it (the converter works on a thread of its own), and keeps it
// until the converter reports the end of its run through
// conversionDidFinishByConverter_withNewUIDs; the server then adopts the
// new backups, tells the converter which it adopted, asks it to release its
// thread and forgets it.  While it runs, the converter reports its progress
// through conversionChangedState_forMountPath.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "platform/Value.h"

class QSBackupConverterProtocol {
 public:
  virtual ~QSBackupConverterProtocol() = default;
  // The mount path of the volume the converter works on.
  virtual std::string mountPoint() const = 0;
  // Begins the run on the converter's own thread.
  virtual void start() = 0;
  // Lets the converter's thread end once the run has been reported.
  virtual void releaseThread() = 0;
  // The state of the run, as clients are told it; nothing before it starts.
  virtual std::optional<platform::Value> converterState() const = 0;
  // Asks the run to stop at its next check; the volume keeps the state it
  // reached, and the next run resumes from there.
  virtual void cancel() {}
  // Waits until the run has ended (or never started); false on time-out.
  virtual bool waitUntilFinished(std::chrono::milliseconds timeout) {
    (void)timeout;
    return true;
  }
  // The server has made these new backups its own and saved its database
  // (called on the main thread after the finish notice, before releaseThread).
  virtual void newUIDsWereAdopted(const std::vector<std::string>& uids) { (void)uids; }
};

class QSBackupConverterDelegate : public QSBackupConversionChangedNotificationProtocol {
 public:
  // Called on the converter's thread at the end of its run with the uids
  // of the backups it converted (possibly none).
  virtual void conversionDidFinishByConverter_withNewUIDs(const std::shared_ptr<QSBackupConverterProtocol>& converter,
                                                          const std::vector<std::string>& newUIDs) = 0;
};
