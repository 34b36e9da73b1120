#include "Engine/pipeline/QSFirstStage.h"

#include "platform/Deadline.h"
#include "platform/Log.h"

namespace {
constexpr std::chrono::milliseconds kReplacedThreadWait{2000};
}

QSFirstStage::QSFirstStage(const platform::AccountDirectory* accounts, bool startThreads)
    : accounts_(accounts ? *accounts : platform::AccountDirectory::system()), startThreads_(startThreads) {
  for (const auto& account : accounts_.allAccounts()) admit(account);
}

QSFirstStage::~QSFirstStage() = default;

bool QSFirstStage::admit(const platform::UserAccount& account) {
  if (!isAdmissibleUID(account.uid)) return false;
  platform::Log::format("User:%s | home:%s | uid:%u | gid:%u", account.name.c_str(), account.home.c_str(), account.uid,
                        account.gid);
  auto environment = QSUserEnvironment::initWithUserName_homeDirectory(account.name, account.home);
  std::shared_ptr<QSUserEnvironment> replaced;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    auto& slot = queueByName_[account.name];
    replaced = std::move(slot);
    slot = environment;
  }
  if (startThreads_) environment->start();
  // The replaced environment would otherwise keep its thread for ever.
  if (replaced) replaced->stopThread(kReplacedThreadWait);
  return true;
}

bool QSFirstStage::addNewUser(const std::optional<std::string>& name) {
  if (!name || name->empty()) return false;
  const auto account = accounts_.accountNamed(*name);
  if (!account) return false;
  return admit(*account);
}

bool QSFirstStage::managesUserName(const std::string& name) const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return queueByName_.count(name) != 0;
}

std::shared_ptr<QSUserEnvironment> QSFirstStage::environmentForUser(const std::string& name) const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  const auto it = queueByName_.find(name);
  return it == queueByName_.end() ? nullptr : it->second;
}

bool QSFirstStage::enqueue_forUser(const std::shared_ptr<QSToken>& token, const std::string& name) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  const auto environment = environmentForUser(name);
  if (!environment) return false;
  environment->enqueue(token);
  return true;
}

bool QSFirstStage::setClient_forUser(std::shared_ptr<QSBackupClientProtocol> client, const std::string& name) {
  // The environment is looked up under the stage's lock; the client is set
  // (and called) outside it.
  const auto environment = environmentForUser(name);
  if (!environment) return false;
  environment->setClient(std::move(client));
  return true;
}

void QSFirstStage::cancelPipeForUser(const std::string& name) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  for (const auto& [key, environment] : queueByName_)
    if (environment->userName() == name) environment->cancelPipe();
}

void QSFirstStage::conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  for (const auto& [key, environment] : queueByName_) environment->conversionChangedState_forMountPath(state, mountPath);
}

std::vector<std::string> QSFirstStage::userNames() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  std::vector<std::string> names;
  for (const auto& [key, environment] : queueByName_) names.push_back(key);
  return names;
}

bool QSFirstStage::stopAll(std::chrono::milliseconds timeout) {
  std::map<std::string, std::shared_ptr<QSUserEnvironment>> environments;
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    environments = queueByName_;
  }
  // Every thread is told first, so that they all wind down at once.
  for (const auto& [key, environment] : environments) environment->stopThread(std::chrono::milliseconds(0));
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool all = true;
  for (const auto& [key, environment] : environments) all = environment->stopThread(platform::timeLeftUntil(deadline)) && all;
  return all;
}
