#include "ipc/QSBackupServiceAdaptor.h"

#include <exception>

#include "ipc/WireCoding.h"
#include "ipc/WireOutcome.h"
#include "ipc/WireValues.h"
#include "platform/Exception.h"
#include "platform/Log.h"

namespace {

constexpr const char* kFailed = "com.qsc.skerrow.Error.Failed";
constexpr const char* kRefused = "com.qsc.skerrow.Error.Refused";

}  // namespace

template <class Work>
auto QSBackupServiceAdaptor::guarded(Work&& work) -> decltype(work()) {
  const sdbus::Message* request = getObject().getCurrentlyProcessedMessage();
  if (!request || request->getSender() != owner_)
    throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied", "This backup service belongs to another client");
  try {
    return work();
  } catch (const sdbus::Error&) {
    throw;
  } catch (const platform::Exception& e) {
    throw sdbus::Error(kFailed, e.name() + ": " + e.reason());
  } catch (const std::exception& e) {
    throw sdbus::Error(kFailed, e.what());
  }
}

QSBackupServiceAdaptor::QSBackupServiceAdaptor(sdbus::IConnection& connection, std::string path,
                                               std::shared_ptr<QSSkerrowBackupService> service, std::string owner)
    : AdaptorInterfaces(connection, std::move(path)), service_(std::move(service)), owner_(std::move(owner)) {
  registerAdaptor();
}

QSBackupServiceAdaptor::~QSBackupServiceAdaptor() { unregisterAdaptor(); }

uint32_t QSBackupServiceAdaptor::versionDepthForBackup(const std::string& uid) {
  return guarded([&] { return service_->versionDepthForBackup(uid); });
}

void QSBackupServiceAdaptor::setVersionDepth_forBackup(const uint32_t& depth, const std::string& uid) {
  guarded([&] { service_->setVersionDepth_forBackup(depth, uid); });
}

bool QSBackupServiceAdaptor::isScheduled(const std::string& uid) {
  return guarded([&] { return service_->isScheduled(uid); });
}

void QSBackupServiceAdaptor::setScheduled_forBackup(const bool& scheduled, const std::string& uid) {
  guarded([&] { service_->setScheduled_forBackup(scheduled, uid); });
}

double QSBackupServiceAdaptor::periodForBackup(const std::string& uid) {
  return guarded([&] { return service_->periodForBackup(uid); });
}

void QSBackupServiceAdaptor::setPeriod_forBackup(const double& period, const std::string& uid) {
  guarded([&] { service_->setPeriod_forBackup(period, uid); });
}

void QSBackupServiceAdaptor::setScheduled_forBackup_forCategory(const bool& scheduled, const std::string& uid,
                                                                const std::string& category) {
  guarded([&] { service_->setScheduled_forBackup_forCategory(scheduled, uid, category); });
}

std::vector<std::map<std::string, sdbus::Variant>> QSBackupServiceAdaptor::userInfoForBackup_forCategory(
    const std::string& uid, const std::string& category) {
  return guarded([&] {
    std::vector<std::map<std::string, sdbus::Variant>> answer;
    if (const auto userInfo = service_->userInfoForBackup_forCategory(uid, category))
      answer.push_back(wire::toWireDictionary(*userInfo));
    return answer;
  });
}

void QSBackupServiceAdaptor::setUserInfo_forBackup_forCategory(const std::map<std::string, sdbus::Variant>& userInfo,
                                                               const std::string& uid, const std::string& category) {
  guarded([&] { service_->setUserInfo_forBackup_forCategory(wire::fromWireDictionary(userInfo), uid, category); });
}

std::vector<std::string> QSBackupServiceAdaptor::pathSuffixExclusionFilter() {
  return guarded([&] {
    const auto filter = service_->pathSuffixExclusionFilter();
    return filter ? std::vector<std::string>{*filter} : std::vector<std::string>{};
  });
}

void QSBackupServiceAdaptor::setPathSuffixExclusionFilter(const std::vector<std::string>& filter) {
  guarded([&] {
    if (filter.size() > 1)
      throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "A filter is one expression or none");
    service_->setPathSuffixExclusionFilter(filter.empty() ? std::nullopt : std::optional<std::string>(filter.front()));
  });
}

void QSBackupServiceAdaptor::activate() {
  guarded([&] { service_->activate(); });
}

void QSBackupServiceAdaptor::activateAndBackupImmediately() {
  guarded([&] { service_->activateAndBackupImmediately(); });
}

void QSBackupServiceAdaptor::activateAndBackupImmediatelyForUID(const std::string& uid) {
  guarded([&] { service_->activateAndBackupImmediatelyForUID(uid); });
}

void QSBackupServiceAdaptor::pause() {
  guarded([&] { service_->pause(); });
}

void QSBackupServiceAdaptor::startBackup(const std::string& uid) {
  guarded([&] { service_->startBackup(uid); });
}

void QSBackupServiceAdaptor::startTally(const std::string& uid) {
  guarded([&] { service_->startTally(uid); });
}

void QSBackupServiceAdaptor::cancelBackup(const std::string& uid) {
  guarded([&] { service_->cancelBackup(uid); });
}

void QSBackupServiceAdaptor::takeOverGuestBackup(const std::string& uid) {
  guarded([&] { service_->takeOverGuestBackup(uid); });
}

bool QSBackupServiceAdaptor::stopManagingBackup(const std::string& uid) {
  return guarded([&] { return service_->stopManagingBackup(uid); });
}

void QSBackupServiceAdaptor::refuseSystemOrHomeVolume(const std::string& bsdName) {
  const sdbus::Message* request = getObject().getCurrentlyProcessedMessage();
  if (request && request->getCredsUid() == 0) return;  // root may
  if (const auto why = service_->refusalToManageVolumeWithBSDName(bsdName)) {
    platform::Log::format("Refused to manage %s for %s: %s", bsdName.c_str(), service_->shortUserName().c_str(),
                          why->c_str());
    throw sdbus::Error(kRefused, *why);
  }
}

std::string QSBackupServiceAdaptor::startManagingVolumeWithBSDName(const std::string& bsdName) {
  return guarded([&] {
    refuseSystemOrHomeVolume(bsdName);
    return service_->startManagingVolumeWithBSDName(bsdName);
  });
}

std::tuple<std::string, bool> QSBackupServiceAdaptor::startManagingVolumeWithBSDName_didSucceed(
    const std::string& bsdName) {
  return guarded([&] {
    refuseSystemOrHomeVolume(bsdName);
    bool didSucceed = false;
    std::string uid = service_->startManagingVolumeWithBSDName_didSucceed(bsdName, &didSucceed);
    return std::tuple<std::string, bool>(std::move(uid), didSucceed);
  });
}

wire::DatabaseWire QSBackupServiceAdaptor::database() {
  return guarded([&] { return wire::toWireDatabase(service_->database()); });
}

std::vector<wire::OutcomeWire> QSBackupServiceAdaptor::outcomeForBackup(const std::string& uid) {
  return guarded([&] {
    std::vector<wire::OutcomeWire> answer;
    const auto outcome = service_->outcomeForBackup(uid);
    if (!outcome) return answer;
    answer.push_back(wire::toWireOutcome(*outcome));
    // The last clean backup follows when it is another run.
    const auto clean = service_->lastCleanBackup(uid);
    if (clean && clean->sequence != outcome->sequence) answer.push_back(wire::toWireOutcome(*clean));
    return answer;
  });
}

wire::HeartbeatWire QSBackupServiceAdaptor::heartbeat() {
  return guarded([&] { return wire::toWire<wire::HeartbeatWire>(*service_->heartbeat()); });
}
