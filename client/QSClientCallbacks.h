// What a front-end client does with the engine's callbacks.  Every method
// has a default that ignores the callback; a client overrides what it
// shows.  Methods run on the client session's bus thread, one at a time;
// they may call the engine (read a tally, ask the service) from there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ipc/WireTypes.h"

// A tally the engine lent by reference: an object path at the engine's
// callback connection (the sender of the callback).
struct QSTallyReference {
  std::string sender;
  std::string path;
};

class QSClientCallbacks {
 public:
  virtual ~QSClientCallbacks() = default;

  // One of the nine tally callbacks; `member` is its name on the bus
  // ("startedSourceTally", "computingTransferTally_withUID", ...), `uid`
  // is absent for the three source tally callbacks.
  virtual void tallyCallback(const std::string& member, const QSTallyReference& tally,
                             const std::optional<std::string>& uid) {
    (void)member, (void)tally, (void)uid;
  }
  virtual void realtimeTransferStarted(const std::string& source, const std::string& destination) {
    (void)source, (void)destination;
  }
  virtual void realtimeTransferFinished(const std::string& source, const std::string& destination, bool result) {
    (void)source, (void)destination, (void)result;
  }
  virtual void copyError(const wire::ErrorWire& error) { (void)error; }
  virtual void stoppedDueToErrors(const std::string& uid) { (void)uid; }
  virtual void conversionChanged(const std::string& state, const std::string& mountPath) {
    (void)state, (void)mountPath;
  }
};
