// The backup services the engine hands to clients on the bus.
//
// A client asks the server for a service (backupServiceForClient), naming
// its callback object.  The registry asks that object for its user's names
// (on the callback bus, so the engine's loop goes on serving meanwhile),
// checks that the caller acts for its own user, has the server register
// the client, and exports a QSBackupServiceAdaptor for it at
// /com/qsc/skerrow/service/N.
//
// Who may ask: the caller's uid comes from the bus (message credentials).
// A client whose short user name is not the name of that uid's account is
// refused with org.freedesktop.DBus.Error.AccessDenied, unless the caller
// is root; nothing is created then.  One caller holds at most
// kServicesPerClient services (org.freedesktop.DBus.Error.LimitsExceeded
// beyond), so a client cannot make the engine grow without bound.
//
// A service lives until its client's unique name leaves the bus
// (NameOwnerChanged): then its object is withdrawn and the client is taken
// for gone, so the next callback to it drops it from its user environment.
//
// Main thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "Engine/server/QSSkerrowServer.h"
#include "ipc/QSBackupServiceAdaptor.h"
#include "ipc/QSCallbackBus.h"
#include "platform/RunLoop.h"

class QSServiceRegistry {
 public:
  static constexpr size_t kServicesPerClient = 16;
  // The answer to a request: the service's object path, or the D-Bus error.
  using Answer = std::function<void(std::optional<sdbus::ObjectPath> service, std::optional<sdbus::Error> error)>;

  QSServiceRegistry(sdbus::IConnection& connection, platform::RunLoop& loop, std::shared_ptr<QSCallbackBus> callbacks,
                    std::shared_ptr<QSSkerrowServer> server);
  ~QSServiceRegistry();
  QSServiceRegistry(const QSServiceRegistry&) = delete;
  QSServiceRegistry& operator=(const QSServiceRegistry&) = delete;

  // A service for the caller `sender` (uid `callerUID`) whose callback
  // object is at `clientPath`; `answer` runs later, on the loop.
  void serviceForClient(const std::string& sender, uint32_t callerUID, const std::string& clientPath, Answer answer);
  // The services alive now.
  size_t serviceCount() const;

 private:
  void connected(const std::string& sender, uint32_t callerUID, const std::shared_ptr<class QSBusClient>& client,
                 const Answer& answer);
  void clientLeft(const std::string& name);
  bool hasLeft(const std::string& name) const { return left_.count(name) != 0; }

  sdbus::IConnection& connection_;
  platform::RunLoop& loop_;
  const std::shared_ptr<QSCallbackBus> callbacks_;
  const std::shared_ptr<QSSkerrowServer> server_;
  std::unique_ptr<sdbus::IProxy> busDaemon_;
  std::map<std::string, std::vector<std::unique_ptr<QSBackupServiceAdaptor>>> services_;
  // Unique names seen leaving (never reused by the bus), the newest kept.
  std::set<std::string> left_;
  std::deque<std::string> leftOrder_;
  uint64_t lastService_ = 0;
  // Lets answers that arrive after the registry is gone know it.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};
