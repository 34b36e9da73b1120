#include "ipc/QSSkerrowServerAdaptor.h"

#include "ipc/WireCoding.h"
#include "ipc/WireValues.h"
#include "platform/Log.h"

namespace {

constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";

}  // namespace

QSSkerrowServerAdaptor::QSSkerrowServerAdaptor(sdbus::IConnection& connection, std::shared_ptr<QSSkerrowServer> server,
                                               QSServiceRegistry& services)
    : AdaptorInterfaces(connection, kServerObjectPath), server_(std::move(server)), services_(services) {
  registerAdaptor();
}

QSSkerrowServerAdaptor::~QSSkerrowServerAdaptor() { unregisterAdaptor(); }

uint32_t QSSkerrowServerAdaptor::callerUID() const {
  const sdbus::Message* request = getObject().getCurrentlyProcessedMessage();
  try {
    if (request) return request->getCredsUid();
  } catch (const sdbus::Error& e) {
    throw sdbus::Error(kAccessDenied, "The bus did not tell who is asking: " + e.getMessage());
  }
  throw sdbus::Error(kAccessDenied, "The bus did not tell who is asking");
}

void QSSkerrowServerAdaptor::requireRoot(const char* operation) const {
  const uint32_t caller = callerUID();
  if (caller == 0) return;
  platform::Log::format("Refused %s to uid %u: it acts on the whole engine", operation, caller);
  throw sdbus::Error(kAccessDenied, std::string(operation) + " is for root only: it acts on the whole engine");
}

void QSSkerrowServerAdaptor::setSupportsContinuousBackup(const bool& supports) {
  requireRoot("setSupportsContinuousBackup");
  server_->setSupportsContinuousBackup(supports);
}

bool QSSkerrowServerAdaptor::supportsContinuousBackup() {
  callerUID();
  return server_->supportsContinuousBackup();
}

void QSSkerrowServerAdaptor::exit() {
  requireRoot("exit");
  server_->exit();
}

void QSSkerrowServerAdaptor::backupServiceForClient(sdbus::Result<sdbus::ObjectPath>&& result,
                                                    sdbus::ObjectPath client) {
  const sdbus::Message* request = getObject().getCurrentlyProcessedMessage();
  std::string sender;
  uid_t uid = 0;
  try {
    if (!request) throw sdbus::Error(kAccessDenied, "no request");
    sender = request->getSender();
    uid = request->getCredsUid();
  } catch (const sdbus::Error& e) {
    result.returnError(sdbus::Error(kAccessDenied, "The bus did not tell who is asking: " + e.getMessage()));
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
  requireRoot("remountDriveWithBSDName");
  return server_->remountDriveWithBSDName(bsdName);
}

std::map<std::string, sdbus::Variant> QSSkerrowServerAdaptor::jobs() {
  callerUID();
  return wire::toWireDictionary(server_->jobs());
}

wire::DatabaseWire QSSkerrowServerAdaptor::db2() {
  const uint32_t caller = callerUID();
  auto database = server_->db2();
  // Other users' names, homes and disks are theirs: a user sees his own backups only.
  if (caller != 0) {
    const auto& accounts = server_->firstStage()->accounts();
    std::erase_if(database, [&](const auto& item) {
      const auto account = accounts.accountNamed(item.second->shortUserName());
      return !account || account->uid != caller;
    });
  }
  return wire::toWireDatabase(database);
}

std::vector<std::string> QSSkerrowServerAdaptor::conversionStateForMountPath(const std::string& mountPath) {
  callerUID();
  const auto state = server_->conversionStateForMountPath(mountPath);
  if (!state) return {};
  if (const std::string* text = state->asString()) return {*text};
  return {state->description()};
}
