// What the server asks of a converter of older backup folders, and what a
// converter tells the server.
//
// The server makes one converter per mounted volume as the volume appears,
// starts it (the converter works on a thread of its own), and keeps it
// until the converter reports the end of its run through
// conversionDidFinishByConverter_withNewUIDs; the server then asks it to
// release its thread and forgets it.  While it runs, the converter reports
// its progress through conversionChangedState_forMountPath.
#pragma once

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
};

class QSBackupConverterDelegate : public QSBackupConversionChangedNotificationProtocol {
 public:
  // Called on the converter's thread at the end of its run with the uids
  // of the backups it converted (possibly none).
  virtual void conversionDidFinishByConverter_withNewUIDs(const std::shared_ptr<QSBackupConverterProtocol>& converter,
                                                          const std::vector<std::string>& newUIDs) = 0;
};
