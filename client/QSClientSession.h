// A front-end client's connection to the engine.
//
// The session connects to the bus, exports the client's callback object
// (com.qsc.skerrow.QSBackupClientProtocol at /com/qsc/skerrow/client) on
// that connection and asks the engine for a backup service.
//
// A session is single-threaded: the thread that made it makes every call
// and serves the engine's callbacks, which are handed to the
// QSClientCallbacks while it pumps (`pump`, and while the service is asked
// for, since the engine asks the client who it is before it answers).
// Calls to the engine are synchronous; callbacks that arrive meanwhile wait
// for the next pump.  A callback may call the engine (read the tally it
// names) from inside the QSClientCallbacks.
//
// Calls raise sdbus::Error as the bus or the engine answers.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <sdbus-c++/sdbus-c++.h>

#include "client/QSClientCallbacks.h"
#include "ipc/SkerrowProxies.h"

// Who the client says it acts for, and its error limit.
struct QSClientIdentity {
  std::string shortUserName;
  std::string longUserName;
  std::string userHome;
  uint64_t maximumContiguousErrors = 0;
  // The identity of the user running the process (password database).
  static QSClientIdentity currentUser();
};

// A proxy of one engine object on the session's connection.
template <class Interface>
class QSProxy final : public sdbus::ProxyInterfaces<Interface> {
 public:
  QSProxy(sdbus::IConnection& connection, std::string destination, std::string path)
      : sdbus::ProxyInterfaces<Interface>(connection, std::move(destination), std::move(path)) {
    this->registerProxy();
  }
  ~QSProxy() { this->unregisterProxy(); }
  using sdbus::ProxyInterfaces<Interface>::getProxy;
};
using QSServerProxy = QSProxy<com::qsc::skerrow::QSSkerrowServerProtocol_proxy>;
using QSServiceProxy = QSProxy<com::qsc::skerrow::QSBackupServiceProtocol_proxy>;
using QSTallyProxy = QSProxy<com::qsc::skerrow::QSTally_proxy>;

class QSClientSession {
 public:
  enum class Bus { System, Session };
  static constexpr const char* kClientObjectPath = "/com/qsc/skerrow/client";

  // Connects and starts serving the callback object; raises sdbus::Error.
  QSClientSession(Bus bus, QSClientIdentity identity, QSClientCallbacks& callbacks);
  ~QSClientSession();
  QSClientSession(const QSClientSession&) = delete;
  QSClientSession& operator=(const QSClientSession&) = delete;

  const QSClientIdentity& identity() const { return identity_; }
  QSServerProxy& server() { return *server_; }
  // The backup service, asked for on first use.
  QSServiceProxy& service();
  // Serves the connection (callbacks among it) for at most `timeout`, or
  // until `done` answers true; answers `done`'s last answer.
  bool pump(std::chrono::milliseconds timeout, const std::function<bool()>& done = [] { return false; });
  // Reads a tally the engine lent.
  std::unique_ptr<QSTallyProxy> tally(const QSTallyReference& reference);
  sdbus::IConnection& connection() { return *connection_; }

 private:
  class CallbackObject;
  QSClientIdentity identity_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<CallbackObject> callbackObject_;
  std::unique_ptr<QSServerProxy> server_;
  std::unique_ptr<QSServiceProxy> service_;
};
