// The engine server on the bus: com.qsc.skerrow.QSSkerrowServerProtocol at
// /com/qsc/skerrow.  Each method hands over to the server; a request for a
// backup service goes to the service registry with the caller's unique
// name and uid, and is answered when the registry is done.
//
// Every handler first asks the bus who is calling (the caller's uid from
// the message credentials).  What acts on the whole engine or on other
// users answers root only: `exit`, `setSupportsContinuousBackup` and
// `remountDriveWithBSDName` refuse others with
// org.freedesktop.DBus.Error.AccessDenied and change nothing, and `db2`
// answers a non-root caller with his own backups only.  The D-Bus policy
// says the same as a second wall.
#pragma once

#include <memory>

#include <sdbus-c++/sdbus-c++.h>

#include "Engine/server/QSSkerrowServer.h"
#include "ipc/QSServiceRegistry.h"
#include "ipc/SkerrowAdaptors.h"
#include "ipc/WireTypes.h"

inline constexpr const char* kServerObjectPath = "/com/qsc/skerrow";
inline constexpr const char* kServiceName = "com.qsc.skerrow";

class QSSkerrowServerAdaptor
    : public sdbus::AdaptorInterfaces<com::qsc::skerrow::QSSkerrowServerProtocol_adaptor> {
 public:
  QSSkerrowServerAdaptor(sdbus::IConnection& connection, std::shared_ptr<QSSkerrowServer> server,
                         QSServiceRegistry& services);
  ~QSSkerrowServerAdaptor();

 private:
  void setSupportsContinuousBackup(const bool& supports) override;
  bool supportsContinuousBackup() override;
  void exit() override;
  void backupServiceForClient(sdbus::Result<sdbus::ObjectPath>&& result, sdbus::ObjectPath client) override;
  bool remountDriveWithBSDName(const std::string& bsdName) override;
  std::map<std::string, sdbus::Variant> jobs() override;
  wire::DatabaseWire db2() override;
  std::vector<std::string> conversionStateForMountPath(const std::string& mountPath) override;

  // The calling user's uid; AccessDenied when the bus does not say.
  uint32_t callerUID() const;
  // AccessDenied unless the caller is root.
  void requireRoot(const char* operation) const;

  std::shared_ptr<QSSkerrowServer> server_;
  QSServiceRegistry& services_;
};
