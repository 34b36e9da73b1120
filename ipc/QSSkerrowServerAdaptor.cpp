#include "ipc/QSSkerrowServerAdaptor.h"

#include "ipc/WireValues.h"

namespace {

constexpr const char* kNotSupported = "org.freedesktop.DBus.Error.NotSupported";

[[noreturn]] void notSupported(const char* what) {
  throw sdbus::Error(kNotSupported, std::string(what) + " is not available in this build of the engine");
}

}  // namespace

QSSkerrowServerAdaptor::QSSkerrowServerAdaptor(sdbus::IConnection& connection, std::shared_ptr<QSSkerrowServer> server)
    : AdaptorInterfaces(connection, kServerObjectPath), server_(std::move(server)) {
  registerAdaptor();
}

QSSkerrowServerAdaptor::~QSSkerrowServerAdaptor() { unregisterAdaptor(); }

void QSSkerrowServerAdaptor::setSupportsContinuousBackup(const bool& supports) {
  server_->setSupportsContinuousBackup(supports);
}

bool QSSkerrowServerAdaptor::supportsContinuousBackup() { return server_->supportsContinuousBackup(); }

void QSSkerrowServerAdaptor::exit() { server_->exit(); }

void QSSkerrowServerAdaptor::backupServiceForClient(sdbus::Result<sdbus::ObjectPath>&& result, sdbus::ObjectPath) {
  result.returnError(sdbus::Error(kNotSupported, "Backup services are not available in this build of the engine"));
}

bool QSSkerrowServerAdaptor::remountDriveWithBSDName(const std::string& bsdName) {
  return server_->remountDriveWithBSDName(bsdName);
}

std::map<std::string, sdbus::Variant> QSSkerrowServerAdaptor::jobs() { return wire::toWireDictionary(server_->jobs()); }

std::map<std::string, sdbus::Struct<bool, bool, std::string, std::string, std::string, std::string, std::string,
                                    std::string, std::string, std::string, std::string,
                                    std::map<std::string, sdbus::Struct<bool, std::string, std::map<std::string, sdbus::Variant>>>,
                                    double, double, uint32_t, std::vector<std::string>>>
QSSkerrowServerAdaptor::db2() {
  notSupported("The backup database");
}

std::vector<std::string> QSSkerrowServerAdaptor::conversionStateForMountPath(const std::string&) {
  notSupported("Legacy conversion");
}
