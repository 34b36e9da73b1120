// A front-end client on the bus, as the engine sees it: the client's
// callback object (com.qsc.skerrow.QSBackupClientProtocol at the object
// path it named, on its unique name), called from the callback bus.
//
// Names: the client is asked once, by `connect`, for its short name, long
// name and home folder; the answers are kept and answered from then on.
// `connect` also asks its error limit, which the main thread is answered
// with later (other threads ask the client each time).
//
// Calls: every callback is sent on the callback bus's thread.  A thread
// other than the main one waits for the reply (at most kCallTimeout; the
// client may read lent tallies or call the engine meanwhile).  The main
// thread never waits for a client: it sends and goes on (the error limit is
// answered from the connection's answer).  `error` is one-way: nobody waits for it.  A call that
// fails (no such name or object, no reply within the time-out, an error
// reply) raises platform::Exception, and so does every call after it: the
// client is taken for gone, which is how QSSkerrowClientProxy learns to
// drop it.  `markGone` does the same when the bus reports that the client
// left.
//
// Tallies go by reference: a tally is lent to the client as a
// com.qsc.skerrow.QSTally object of the callback bus
// (/com/qsc/skerrow/tally/N), read live.  The last kLentTallies tallies lent
// to one client stay readable; older ones are withdrawn, and all of them
// when the client object is destroyed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <sdbus-c++/Message.h>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "ipc/QSCallbackBus.h"
#include "platform/RunLoop.h"

class QSBusClient : public QSBackupClientProtocol {
 public:
  static constexpr std::chrono::seconds kCallTimeout{10};
  static constexpr size_t kLentTallies = 8;
  static constexpr const char* kInterface = "com.qsc.skerrow.QSBackupClientProtocol";

  // Answers the connected client, or nothing and why.
  using Connected = std::function<void(std::shared_ptr<QSBusClient> client, std::string failure)>;
  // Asks the client object at `path` of `destination` for its names; `done`
  // runs on `answerLoop` with the client, or with nothing and the reason.
  static void connect(const std::shared_ptr<QSCallbackBus>& bus, platform::RunLoop& answerLoop,
                      const std::string& destination, const std::string& path, Connected done);
  ~QSBusClient() override;
  QSBusClient(const QSBusClient&) = delete;
  QSBusClient& operator=(const QSBusClient&) = delete;

  // The client's unique name on the bus.
  const std::string& destination() const { return destination_; }
  // From any thread: the client left the bus.
  void markGone() { gone_->store(true); }
  bool isGone() const { return gone_->load(); }

  void startedSourceTally(const Tally& tally) override;
  void computingSourceTally(const Tally& tally) override;
  void finishedSourceTally(const Tally& tally) override;
  void startedDestinationTally_withUID(const Tally& tally, const std::string& uid) override;
  void computingDestinationTally_withUID(const Tally& tally, const std::string& uid) override;
  void finishedDestinationTally_withUID(const Tally& tally, const std::string& uid) override;
  void startedTransferTally_withUID(const Tally& tally, const std::string& uid) override;
  void computingTransferTally_withUID(const Tally& tally, const std::string& uid) override;
  void finishedTransferTally_withUID(const Tally& tally, const std::string& uid) override;
  void startedRealtimeTransferOfFile_to(const std::string& source, const std::string& destination) override;
  void finishedRealtimeTransferOfFile_to_withResult(const std::string& source, const std::string& destination,
                                                    bool result) override;
  void error(const QSBackupError& error) override;
  void stoppedDueToErrorsForBackup(const std::string& uid) override;
  uint64_t maximumContiguousErrorsClientWants() override;
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override;
  std::string userHome() override { return userHome_; }
  std::string shortUserName() override { return shortUserName_; }
  std::string longUserName() override { return longUserName_; }

  struct Peer;

 private:
  struct Names {
    std::string shortUserName;
    std::string longUserName;
    std::string userHome;
    uint64_t maximumContiguousErrors = 0;
  };
  QSBusClient(std::shared_ptr<QSCallbackBus> bus, uint64_t peer, std::string destination, Names names);

  using Fill = std::function<void(sdbus::MethodCall& call, Peer& peer)>;
  using Read = std::function<void(sdbus::MethodReply& reply)>;
  // Sends `member` with the arguments `fill` adds (on the callback thread)
  // and, unless one-way or on the main thread, waits for the reply and
  // hands it to `read`.
  void call(const char* member, Fill fill, Read read, bool oneWay = false);
  void tallyCall(const char* member, const Tally& tally, const std::string* uid);
  [[noreturn]] void raiseGone() const;

  const std::shared_ptr<QSCallbackBus> bus_;
  const uint64_t peer_;
  const std::string destination_;
  const std::string shortUserName_;
  const std::string longUserName_;
  const std::string userHome_;
  const uint64_t maximumContiguousErrorsAtConnection_;
  const std::shared_ptr<std::atomic<bool>> gone_ = std::make_shared<std::atomic<bool>>(false);
};
