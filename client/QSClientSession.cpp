#include "client/QSClientSession.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "ipc/SkerrowAdaptors.h"
#include "platform/UserDatabase.h"

namespace {

constexpr const char* kEngineName = "com.qsc.skerrow";
constexpr const char* kServerPath = "/com/qsc/skerrow";
// How long the engine may take to set up a service (it asks the client
// first, with its own time-out of 10 s).
constexpr std::chrono::seconds kServiceTimeout{25};

}  // namespace

QSClientIdentity QSClientIdentity::currentUser() {
  QSClientIdentity identity;
  if (const auto account = platform::UserDatabase::accountWithUID(static_cast<uint32_t>(getuid()))) {
    identity.shortUserName = account->name;
    identity.longUserName = account->fullName.empty() ? account->name : account->fullName;
    identity.userHome = account->home;
  }
  return identity;
}

// The callback object: answers the engine's questions from the identity
// and hands every notice to the callbacks.
class QSClientSession::CallbackObject
    : public sdbus::AdaptorInterfaces<com::qsc::skerrow::QSBackupClientProtocol_adaptor> {
 public:
  CallbackObject(sdbus::IConnection& connection, const QSClientIdentity& identity, QSClientCallbacks& callbacks)
      : AdaptorInterfaces(connection, kClientObjectPath), identity_(identity), callbacks_(callbacks) {
    registerAdaptor();
  }
  ~CallbackObject() { unregisterAdaptor(); }

 private:
  QSTallyReference reference(const sdbus::ObjectPath& tally) {
    return {getObject().getCurrentlyProcessedMessage()->getSender(), tally};
  }
  void tally(const char* member, const sdbus::ObjectPath& path, std::optional<std::string> uid = std::nullopt) {
    callbacks_.tallyCallback(member, reference(path), uid);
  }

  void startedSourceTally(const sdbus::ObjectPath& t) override { tally("startedSourceTally", t); }
  void computingSourceTally(const sdbus::ObjectPath& t) override { tally("computingSourceTally", t); }
  void finishedSourceTally(const sdbus::ObjectPath& t) override { tally("finishedSourceTally", t); }
  void startedDestinationTally_withUID(const sdbus::ObjectPath& t, const std::string& uid) override {
    tally("startedDestinationTally_withUID", t, uid);
  }
  void computingDestinationTally_withUID(const sdbus::ObjectPath& t, const std::string& uid) override {
    tally("computingDestinationTally_withUID", t, uid);
  }
  void finishedDestinationTally_withUID(const sdbus::ObjectPath& t, const std::string& uid) override {
    tally("finishedDestinationTally_withUID", t, uid);
  }
  void startedTransferTally_withUID(const sdbus::ObjectPath& t, const std::string& uid) override {
    tally("startedTransferTally_withUID", t, uid);
  }
  void computingTransferTally_withUID(const sdbus::ObjectPath& t, const std::string& uid) override {
    tally("computingTransferTally_withUID", t, uid);
  }
  void finishedTransferTally_withUID(const sdbus::ObjectPath& t, const std::string& uid) override {
    tally("finishedTransferTally_withUID", t, uid);
  }
  void startedRealtimeTransferOfFile_to(const std::string& source, const std::string& destination) override {
    callbacks_.realtimeTransferStarted(source, destination);
  }
  void finishedRealtimeTransferOfFile_to_withResult(const std::string& source, const std::string& destination,
                                                    const bool& result) override {
    callbacks_.realtimeTransferFinished(source, destination, result);
  }
  void error(const wire::ErrorWire& error) override { callbacks_.copyError(error); }
  void stoppedDueToErrorsForBackup(const std::string& uid) override { callbacks_.stoppedDueToErrors(uid); }
  uint64_t maximumContiguousErrorsClientWants() override { return identity_.maximumContiguousErrors; }
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override {
    callbacks_.conversionChanged(state, mountPath);
  }
  std::string userHome() override { return identity_.userHome; }
  std::string shortUserName() override { return identity_.shortUserName; }
  std::string longUserName() override { return identity_.longUserName; }

  const QSClientIdentity& identity_;
  QSClientCallbacks& callbacks_;
};

QSClientSession::QSClientSession(Bus bus, QSClientIdentity identity, QSClientCallbacks& callbacks)
    : identity_(std::move(identity)),
      connection_(bus == Bus::System ? sdbus::createSystemBusConnection() : sdbus::createSessionBusConnection()) {
  callbackObject_ = std::make_unique<CallbackObject>(*connection_, identity_, callbacks);
  server_ = std::make_unique<QSServerProxy>(*connection_, kEngineName, kServerPath);
}

QSClientSession::~QSClientSession() {
  service_.reset();
  server_.reset();
  callbackObject_.reset();
}

QSServiceProxy& QSClientSession::service() {
  if (service_) return *service_;
  // Asked without blocking the connection: the engine asks our callback
  // object who we are before it answers.
  auto& proxy = server_->getProxy();
  auto request = proxy.createMethodCall(com::qsc::skerrow::QSSkerrowServerProtocol_proxy::INTERFACE_NAME,
                                        "backupServiceForClient");
  request << sdbus::ObjectPath(kClientObjectPath);
  std::optional<sdbus::ObjectPath> path;
  std::optional<sdbus::Error> failure;
  auto pending = proxy.callMethod(
      request,
      [&](sdbus::MethodReply& reply, const sdbus::Error* error) {
        if (error) {
          failure = *error;
          return;
        }
        sdbus::ObjectPath answer;
        reply >> answer;
        path = answer;
      },
      kServiceTimeout);
  pump(kServiceTimeout + std::chrono::seconds(1), [&] { return path || failure; });
  if (failure) throw *failure;
  if (!path) throw sdbus::Error("org.freedesktop.DBus.Error.NoReply", "The engine did not answer");
  service_ = std::make_unique<QSServiceProxy>(*connection_, kEngineName, *path);
  return *service_;
}

bool QSClientSession::pump(std::chrono::milliseconds timeout, const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    while (connection_->processPendingRequest()) {
      if (done()) return true;
    }
    if (done()) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    const auto data = connection_->getEventLoopPollData();
    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    if (data.timeout_usec != UINT64_MAX) {
      timespec ts{};
      clock_gettime(CLOCK_MONOTONIC, &ts);
      const uint64_t nowUsec = static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
      const auto busWait = std::chrono::milliseconds(data.timeout_usec > nowUsec ? (data.timeout_usec - nowUsec) / 1000 : 0);
      wait = std::min(wait, busWait);
    }
    // Wake now and then, so `done` may also watch things outside the bus.
    wait = std::min(wait, std::chrono::milliseconds(200));
    pollfd fd{data.fd, data.events, 0};
    poll(&fd, 1, static_cast<int>(wait.count()));
  }
}

std::unique_ptr<QSTallyProxy> QSClientSession::tally(const QSTallyReference& reference) {
  return std::make_unique<QSTallyProxy>(*connection_, reference.sender, reference.path);
}
