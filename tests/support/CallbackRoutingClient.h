// A backup client for tests whose callbacks all arrive at one function:
// `callback(name, argument, tally)`.  The name is the callback's short name
// ("startedSourceTally", "finishedTransferTally", "stoppedDueToErrors", ...);
// the argument is the uid for the tally callbacks and the stop,
// "source,destination" (",yes"/",no" added for the result) for real-time
// copies and "state,mountPath" for conversions; error records arrive at
// `received`.  The questions about the user and the error limit are left to
// the subclass.
#pragma once

#include <string>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "Engine/records/QSBackupError.h"

namespace skerrow_test {

class CallbackRoutingClient : public QSBackupClientProtocol {
 public:
  void startedSourceTally(const Tally& t) override { callback("startedSourceTally", "", t); }
  void computingSourceTally(const Tally& t) override { callback("computingSourceTally", "", t); }
  void finishedSourceTally(const Tally& t) override { callback("finishedSourceTally", "", t); }
  void startedDestinationTally_withUID(const Tally& t, const std::string& uid) override {
    callback("startedDestinationTally", uid, t);
  }
  void computingDestinationTally_withUID(const Tally& t, const std::string& uid) override {
    callback("computingDestinationTally", uid, t);
  }
  void finishedDestinationTally_withUID(const Tally& t, const std::string& uid) override {
    callback("finishedDestinationTally", uid, t);
  }
  void startedTransferTally_withUID(const Tally& t, const std::string& uid) override {
    callback("startedTransferTally", uid, t);
  }
  void computingTransferTally_withUID(const Tally& t, const std::string& uid) override {
    callback("computingTransferTally", uid, t);
  }
  void finishedTransferTally_withUID(const Tally& t, const std::string& uid) override {
    callback("finishedTransferTally", uid, t);
  }
  void startedRealtimeTransferOfFile_to(const std::string& source, const std::string& destination) override {
    callback("startedRealtimeTransfer", source + "," + destination, nullptr);
  }
  void finishedRealtimeTransferOfFile_to_withResult(const std::string& source, const std::string& destination,
                                                    bool result) override {
    callback("finishedRealtimeTransfer", source + "," + destination + (result ? ",yes" : ",no"), nullptr);
  }
  void error(const QSBackupError& e) override { received(e); }
  void stoppedDueToErrorsForBackup(const std::string& uid) override { callback("stoppedDueToErrors", uid, nullptr); }
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override {
    callback("conversionChangedState", state + "," + mountPath, nullptr);
  }

 protected:
  virtual void callback(const std::string& name, const std::string& argument, const Tally& tally) = 0;
  virtual void received(const QSBackupError& error) = 0;
};

}  // namespace skerrow_test
