#include "ipc/QSServiceRegistry.h"

#include "Engine/server/QSSkerrowBackupService.h"
#include "ipc/QSBusClient.h"
#include "platform/Log.h"

namespace {

constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* kClientDidNotAnswer = "com.qsc.skerrow.Error.ClientDidNotAnswer";
constexpr const char* kUnknownUser = "com.qsc.skerrow.Error.UnknownUser";
constexpr size_t kRememberedLeavers = 4096;

}  // namespace

QSServiceRegistry::QSServiceRegistry(sdbus::IConnection& connection, platform::RunLoop& loop,
                                     std::shared_ptr<QSCallbackBus> callbacks, std::shared_ptr<QSSkerrowServer> server)
    : connection_(connection), loop_(loop), callbacks_(std::move(callbacks)), server_(std::move(server)) {
  busDaemon_ = sdbus::createProxy(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  busDaemon_->uponSignal("NameOwnerChanged")
      .onInterface("org.freedesktop.DBus")
      .call([this](const std::string& name, const std::string&, const std::string& newOwner) {
        if (newOwner.empty() && !name.empty() && name.front() == ':') clientLeft(name);
      });
  busDaemon_->finishRegistration();
}

QSServiceRegistry::~QSServiceRegistry() {
  for (auto& [name, adaptors] : services_)
    for (auto& adaptor : adaptors)
      if (auto client = std::dynamic_pointer_cast<QSBusClient>(adaptor->service()->client())) client->markGone();
}

size_t QSServiceRegistry::serviceCount() const {
  size_t count = 0;
  for (const auto& [name, adaptors] : services_) count += adaptors.size();
  return count;
}

void QSServiceRegistry::serviceForClient(const std::string& sender, uint32_t callerUID, const std::string& clientPath,
                                         Answer answer) {
  const auto it = services_.find(sender);
  if (it != services_.end() && it->second.size() >= kServicesPerClient)
    return answer(std::nullopt, sdbus::Error(kLimitsExceeded, "This client holds as many backup services as it may"));
  std::weak_ptr<int> alive = alive_;
  QSBusClient::connect(callbacks_, loop_, sender, clientPath,
                       [this, alive, sender, callerUID, answer](std::shared_ptr<QSBusClient> client, std::string why) {
                         if (alive.expired()) return;
                         if (!client)
                           return answer(std::nullopt,
                                         sdbus::Error(kClientDidNotAnswer, "The client's callback object did not "
                                                                           "answer who it runs for: " + why));
                         connected(sender, callerUID, client, answer);
                       });
}

void QSServiceRegistry::connected(const std::string& sender, uint32_t callerUID,
                                  const std::shared_ptr<QSBusClient>& client, const Answer& answer) {
  if (hasLeft(sender)) return;  // nobody is left to answer
  const std::string userName = client->shortUserName();
  const auto account = server_->firstStage()->accounts().accountNamed(userName);
  if (callerUID != 0 && (!account || account->uid != callerUID)) {
    platform::Log::format("Refused a backup service to uid %u claiming to act for \"%s\"", callerUID,
                          userName.c_str());
    return answer(std::nullopt, sdbus::Error(kAccessDenied, "A client may only act for the user it runs as"));
  }
  if (!server_->backupServiceForClient(client))
    return answer(std::nullopt, sdbus::Error(kUnknownUser, "The engine does not back up the user \"" + userName + "\""));
  auto service = QSSkerrowBackupService::initWithServer_client(server_, client);
  const std::string path = "/com/qsc/skerrow/service/" + std::to_string(++lastService_);
  services_[sender].push_back(std::make_unique<QSBackupServiceAdaptor>(connection_, path, std::move(service), sender));
  answer(sdbus::ObjectPath(path), std::nullopt);
}

void QSServiceRegistry::clientLeft(const std::string& name) {
  if (left_.insert(name).second) {
    leftOrder_.push_back(name);
    if (leftOrder_.size() > kRememberedLeavers) {
      left_.erase(leftOrder_.front());
      leftOrder_.pop_front();
    }
  }
  const auto it = services_.find(name);
  if (it == services_.end()) return;
  for (const auto& adaptor : it->second)
    if (auto client = std::dynamic_pointer_cast<QSBusClient>(adaptor->service()->client())) client->markGone();
  services_.erase(it);
}
