#include "Engine/clients/QSSkerrowClientProxy.h"

#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/OVThread.h"

std::unique_lock<std::recursive_mutex> QSSkerrowClientProxy::serialize() const {
  std::unique_lock<std::recursive_mutex> lock(lock_, std::defer_lock);
  if (platform::OVThread::isMainThread())
    (void)lock.try_lock();
  else
    lock.lock();
  return lock;
}

void QSSkerrowClientProxy::setProxiedObject(std::shared_ptr<QSBackupClientProtocol> client) {
  std::shared_ptr<QSBackupClientProtocol> old;
  const auto serial = serialize();
  std::lock_guard<std::mutex> lock(clientMutex_);
  old = std::exchange(client_, std::move(client));
}

std::shared_ptr<QSBackupClientProtocol> QSSkerrowClientProxy::proxiedObject() const {
  std::lock_guard<std::mutex> lock(clientMutex_);
  return client_;
}

template <class Call>
bool QSSkerrowClientProxy::relay(Call&& call) {
  const auto client = proxiedObject();
  if (!client) return false;
  try {
    call(*client);
  } catch (const platform::Exception&) {
    // Dropped unless another client has been set meanwhile.
    std::lock_guard<std::mutex> lock(clientMutex_);
    if (client_ == client) client_.reset();
    return false;
  }
  return true;
}

// The traced relays: the lock is held for the call and its trace line, so
// lines and calls keep one order.
#define QS_RELAY_TRACED(call, ...)                                     \
  const auto serial = serialize();                                     \
  if (relay([&](QSBackupClientProtocol& client) { client.call; }))    \
    platform::Log::format(__VA_ARGS__);

void QSSkerrowClientProxy::startedSourceTally(const Tally& tally) {
  QS_RELAY_TRACED(startedSourceTally(tally), "%s", __PRETTY_FUNCTION__)
}

void QSSkerrowClientProxy::computingSourceTally(const Tally& tally) {
  QS_RELAY_TRACED(computingSourceTally(tally), "%s", __PRETTY_FUNCTION__)
}

void QSSkerrowClientProxy::finishedSourceTally(const Tally& tally) {
  QS_RELAY_TRACED(finishedSourceTally(tally), "%s", __PRETTY_FUNCTION__)
}

void QSSkerrowClientProxy::startedDestinationTally_withUID(const Tally& tally, const std::string& uid) {
  QS_RELAY_TRACED(startedDestinationTally_withUID(tally, uid), "%s (%s)", __PRETTY_FUNCTION__, uid.c_str())
}

void QSSkerrowClientProxy::computingDestinationTally_withUID(const Tally& tally, const std::string& uid) {
  QS_RELAY_TRACED(computingDestinationTally_withUID(tally, uid), "%s (%s)", __PRETTY_FUNCTION__, uid.c_str())
}

void QSSkerrowClientProxy::finishedDestinationTally_withUID(const Tally& tally, const std::string& uid) {
  QS_RELAY_TRACED(finishedDestinationTally_withUID(tally, uid), "%s (%s)", __PRETTY_FUNCTION__, uid.c_str())
}

void QSSkerrowClientProxy::startedTransferTally_withUID(const Tally& tally, const std::string& uid) {
  QS_RELAY_TRACED(startedTransferTally_withUID(tally, uid), "%s (%s)", __PRETTY_FUNCTION__, uid.c_str())
}

void QSSkerrowClientProxy::computingTransferTally_withUID(const Tally& tally, const std::string& uid) {
  QS_RELAY_TRACED(computingTransferTally_withUID(tally, uid), "%s (%s)", __PRETTY_FUNCTION__, uid.c_str())
}

void QSSkerrowClientProxy::finishedTransferTally_withUID(const Tally& tally, const std::string& uid) {
  QS_RELAY_TRACED(finishedTransferTally_withUID(tally, uid), "%s (%s)", __PRETTY_FUNCTION__, uid.c_str())
}

void QSSkerrowClientProxy::startedRealtimeTransferOfFile_to(const std::string& source,
                                                            const std::string& destination) {
  QS_RELAY_TRACED(startedRealtimeTransferOfFile_to(source, destination), "%s (%s,%s)", __PRETTY_FUNCTION__,
                  source.c_str(), destination.c_str())
}

void QSSkerrowClientProxy::finishedRealtimeTransferOfFile_to_withResult(const std::string& source,
                                                                        const std::string& destination,
                                                                        bool result) {
  // The result is printed as its raw byte.
  QS_RELAY_TRACED(finishedRealtimeTransferOfFile_to_withResult(source, destination, result), "%s (%s,%s,%c)",
                  __PRETTY_FUNCTION__, source.c_str(), destination.c_str(), static_cast<char>(result))
}

void QSSkerrowClientProxy::conversionChangedState_forMountPath(const std::string& state,
                                                               const std::string& mountPath) {
  QS_RELAY_TRACED(conversionChangedState_forMountPath(state, mountPath), "%s (%s,%s)", __PRETTY_FUNCTION__,
                  state.c_str(), mountPath.c_str())
}

#undef QS_RELAY_TRACED

void QSSkerrowClientProxy::error(const QSBackupError& error) {
  const auto serial = serialize();
  relay([&](QSBackupClientProtocol& client) { client.error(error); });
}

void QSSkerrowClientProxy::stoppedDueToErrorsForBackup(const std::string& uid) {
  const auto serial = serialize();
  relay([&](QSBackupClientProtocol& client) { client.stoppedDueToErrorsForBackup(uid); });
}

uint64_t QSSkerrowClientProxy::maximumContiguousErrorsClientWants() {
  const auto serial = serialize();
  uint64_t answer = 0;
  relay([&](QSBackupClientProtocol& client) { answer = client.maximumContiguousErrorsClientWants(); });
  return answer;
}

std::string QSSkerrowClientProxy::userHome() {
  auto client = proxiedObject();
  return client ? client->userHome() : std::string();
}

std::string QSSkerrowClientProxy::shortUserName() {
  auto client = proxiedObject();
  return client ? client->shortUserName() : std::string();
}

std::string QSSkerrowClientProxy::longUserName() {
  auto client = proxiedObject();
  return client ? client->longUserName() : std::string();
}
