#include "ipc/QSSkerrowServerAdaptor.h"

#include "ipc/WireCoding.h"
#include "ipc/WireValues.h"

namespace {

constexpr const char* kNotSupported = "org.freedesktop.DBus.Error.NotSupported";

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

wire::DatabaseWire QSSkerrowServerAdaptor::db2() {
  wire::DatabaseWire database;
  for (const auto& [uid, entry] : server_->db2()) database.emplace(uid, wire::toWire<wire::EntryWire>(*entry));
  return database;
}

std::vector<std::string> QSSkerrowServerAdaptor::conversionStateForMountPath(const std::string& mountPath) {
  const auto state = server_->conversionStateForMountPath(mountPath);
  if (!state) return {};
  if (const std::string* text = state->asString()) return {*text};
  return {state->description()};
}
