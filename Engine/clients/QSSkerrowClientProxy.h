// The engine's side of one front-end client: every callback to the client
// goes through here.
//
// The proxy is its own lock (one per proxy, also taken by setProxiedObject),
// so callbacks to one client never overlap and arrive in the order they were
// made; a slow client slows only the threads that report to it.  With no
// client a callback does nothing (a query answers 0).  After a successful
// call a trace line is logged: the relaying function's full signature, then
// the uid, paths or state in parentheses (none for the source tallies; no
// trace at all for error, stoppedDueToErrorsForBackup and the error limit).
// A call that raises platform::Exception (the client has gone away) drops
// the client silently; later callbacks are lost until a client is set again.
// Any other exception passes through once the lock is released.
//
// The main thread never waits for the lock: a stage thread holds it for as
// long as its client takes to answer, and the main loop must go on serving.
// A call from the main thread does not wait for the client either (the bus
// layer only queues it, in order), so it is made without the lock when the
// lock is busy.
#pragma once

#include <memory>
#include <mutex>

#include "Engine/clients/QSBackupClientProtocol.h"

class QSSkerrowClientProxy : public QSBackupClientProtocol {
 public:
  QSSkerrowClientProxy() = default;
  static std::shared_ptr<QSSkerrowClientProxy> init() { return std::make_shared<QSSkerrowClientProxy>(); }

  void setProxiedObject(std::shared_ptr<QSBackupClientProtocol> client);
  std::shared_ptr<QSBackupClientProtocol> proxiedObject() const;

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

  // Asked of the client directly (empty without a client).
  std::string userHome() override;
  std::string shortUserName() override;
  std::string longUserName() override;

 private:
  // Under the lock: calls `call` on the client, if any, and answers whether
  // it returned normally; a platform::Exception drops the client.
  template <class Call>
  bool relay(Call&& call);
  // The proxy's lock as the calling thread may take it (see above).
  std::unique_lock<std::recursive_mutex> serialize() const;

  mutable std::recursive_mutex lock_;
  // Guards `client_` alone, held only to read or replace it.
  mutable std::mutex clientMutex_;
  std::shared_ptr<QSBackupClientProtocol> client_;
};
