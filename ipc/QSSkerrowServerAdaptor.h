// The engine server on the bus: com.qsc.skerrow.QSSkerrowServerProtocol at
// /com/qsc/skerrow.  Each method hands over to the server; a request for a
// backup service goes to the service registry with the caller's unique
// name and uid, and is answered when the registry is done.
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

  std::shared_ptr<QSSkerrowServer> server_;
  QSServiceRegistry& services_;
};
