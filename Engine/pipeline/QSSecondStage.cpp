#include "Engine/pipeline/QSSecondStage.h"

#include "platform/Deadline.h"

QSSecondStage::QSSecondStage(const QSPipelineHost* host, platform::NotificationCenter* center, bool startThreads)
    : host_(host), center_(center), startThreads_(startThreads) {}

QSSecondStage::~QSSecondStage() = default;

void QSSecondStage::createEnvironmentForUID_withUserEnvironment(
    const std::string& uid, const std::shared_ptr<QSUserEnvironment>& userEnvironment) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  if (!userEnvironment || queueByUID_.threadSafeObjectForKey(uid)) return;
  auto environment = QSPerUIDEnvironment::initWithUserEnvironment_uid(userEnvironment, uid, host_, center_);
  queueByUID_.threadSafeSetObject_forKey(environment, uid);
  if (startThreads_) environment->start();
}

std::shared_ptr<QSPerUIDEnvironment> QSSecondStage::environmentForUID(const std::string& uid) const {
  return queueByUID_.threadSafeObjectForKey(uid).value_or(nullptr);
}

std::shared_ptr<QSUserEnvironment> QSSecondStage::userEnvironmentForUID(const std::string& uid) const {
  const auto environment = environmentForUID(uid);
  return environment ? environment->perUserEnvironment() : nullptr;
}

bool QSSecondStage::enqueue_forUID(const std::shared_ptr<QSToken>& token, const std::string& uid) {
  // Not under the stage's lock: tokens arrive from first-stage threads that
  // hold their user environment's lock, while creating an environment takes
  // the stage's lock and then that same user environment's.
  const auto environment = environmentForUID(uid);
  return environment && environment->enqueue(token);
}

std::vector<std::shared_ptr<QSPerUIDEnvironment>> QSSecondStage::environments() const {
  std::vector<std::shared_ptr<QSPerUIDEnvironment>> all;
  for (auto& [uid, environment] : queueByUID_.snapshot()) all.push_back(environment);
  return all;
}

void QSSecondStage::cancelPipeForUser(const std::string& shortUserName) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  for (const auto& environment : environments())
    if (environment->perUserEnvironment()->userName() == shortUserName) environment->cancelPipe();
}

void QSSecondStage::terminateEnvironmentForUID(const std::string& uid) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  const auto environment = environmentForUID(uid);
  if (!environment) return;
  environment->cancel();
  queueByUID_.threadSafeRemoveObjectForKey(uid);
  // Forget the ones whose threads have ended; keep the rest for teardown.
  std::erase_if(terminated_, [](const auto& old) { return old.use_count() == 1; });
  terminated_.push_back(environment);
}

void QSSecondStage::conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  for (const auto& environment : environments())
    environment->perUserEnvironment()->conversionChangedState_forMountPath(state, mountPath);
}

void QSSecondStage::distributeFSEvent(const QSPerUIDEnvironment::FSEvent& event) {
  for (const auto& environment : environments()) environment->enqueueFSEvent(event);
}

std::vector<std::string> QSSecondStage::uids() const { return queueByUID_.allKeys(); }

bool QSSecondStage::stopAll(std::chrono::milliseconds timeout) {
  std::vector<std::shared_ptr<QSPerUIDEnvironment>> all = environments();
  {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    all.insert(all.end(), terminated_.begin(), terminated_.end());
  }
  // Every thread is told first, so that they all wind down at once.
  for (const auto& environment : all) environment->stopThread(std::chrono::milliseconds(0));
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool ended = true;
  for (const auto& environment : all) ended = environment->stopThread(platform::timeLeftUntil(deadline)) && ended;
  return ended;
}
