#include "ipc/QSSkerrowServerAdaptor.h"

#include "ipc/WireCoding.h"
#include "ipc/WireValues.h"

QSSkerrowServerAdaptor::QSSkerrowServerAdaptor(sdbus::IConnection& connection, std::shared_ptr<QSSkerrowServer> server,
                                               QSServiceRegistry& services)
    : AdaptorInterfaces(connection, kServerObjectPath), server_(std::move(server)), services_(services) {
  registerAdaptor();
}

QSSkerrowServerAdaptor::~QSSkerrowServerAdaptor() { unregisterAdaptor(); }

void QSSkerrowServerAdaptor::setSupportsContinuousBackup(const bool& supports) {
  server_->setSupportsContinuousBackup(supports);
}

bool QSSkerrowServerAdaptor::supportsContinuousBackup() { return server_->supportsContinuousBackup(); }

void QSSkerrowServerAdaptor::exit() { server_->exit(); }

void QSSkerrowServerAdaptor::backupServiceForClient(sdbus::Result<sdbus::ObjectPath>&& result,
                                                    sdbus::ObjectPath client) {
  const sdbus::Message* request = getObject().getCurrentlyProcessedMessage();
  std::string sender;
  uid_t uid = 0;
  try {
    sender = request->getSender();
    uid = request->getCredsUid();
  } catch (const sdbus::Error& e) {
    result.returnError(sdbus::Error("org.freedesktop.DBus.Error.AccessDenied",
                                    "The bus did not tell who is asking: " + e.getMessage()));
    return;
  }
  // The result answers once, later; the registry's answer may be copied around until then.
  auto pending = std::make_shared<sdbus::Result<sdbus::ObjectPath>>(std::move(result));
  services_.serviceForClient(sender, uid, client,
                             [pending](std::optional<sdbus::ObjectPath> service, std::optional<sdbus::Error> error) {
                               if (service)
                                 pending->returnResults(*service);
                               else
                                 pending->returnError(*error);
                             });
}

bool QSSkerrowServerAdaptor::remountDriveWithBSDName(const std::string& bsdName) {
  return server_->remountDriveWithBSDName(bsdName);
}

std::map<std::string, sdbus::Variant> QSSkerrowServerAdaptor::jobs() { return wire::toWireDictionary(server_->jobs()); }

wire::DatabaseWire QSSkerrowServerAdaptor::db2() {
  return wire::toWireDatabase(server_->db2());
}

std::vector<std::string> QSSkerrowServerAdaptor::conversionStateForMountPath(const std::string& mountPath) {
  const auto state = server_->conversionStateForMountPath(mountPath);
  if (!state) return {};
  if (const std::string* text = state->asString()) return {*text};
  return {state->description()};
}
