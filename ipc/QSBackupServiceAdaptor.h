// One client's backup service on the bus: com.qsc.skerrow.QSBackupServiceProtocol
// at /com/qsc/skerrow/service/N.  Each method translates its arguments and
// hands over to the QSSkerrowBackupService; records go back by copy.
//
// Only the client the service was made for may use it: a call from any
// other unique name is refused with org.freedesktop.DBus.Error.AccessDenied
// (the object path is no secret on the bus).
//
// A failure inside the engine reaches the caller as the D-Bus error
// com.qsc.skerrow.Error.Failed with the reason; values the bus types cannot
// carry as property-list values are refused with
// org.freedesktop.DBus.Error.InvalidArgs before anything changes.
#pragma once

#include <memory>
#include <string>

#include <sdbus-c++/sdbus-c++.h>

#include "Engine/server/QSSkerrowBackupService.h"
#include "ipc/SkerrowAdaptors.h"
#include "ipc/WireTypes.h"

class QSBackupServiceAdaptor
    : public sdbus::AdaptorInterfaces<com::qsc::skerrow::QSBackupServiceProtocol_adaptor> {
 public:
  // `owner`: the unique bus name of the client the service is for.
  QSBackupServiceAdaptor(sdbus::IConnection& connection, std::string path,
                         std::shared_ptr<QSSkerrowBackupService> service, std::string owner);
  ~QSBackupServiceAdaptor();

  const std::shared_ptr<QSSkerrowBackupService>& service() const { return service_; }

 private:
  uint32_t versionDepthForBackup(const std::string& uid) override;
  void setVersionDepth_forBackup(const uint32_t& depth, const std::string& uid) override;
  bool isScheduled(const std::string& uid) override;
  void setScheduled_forBackup(const bool& scheduled, const std::string& uid) override;
  double periodForBackup(const std::string& uid) override;
  void setPeriod_forBackup(const double& period, const std::string& uid) override;
  void setScheduled_forBackup_forCategory(const bool& scheduled, const std::string& uid,
                                          const std::string& category) override;
  std::vector<std::map<std::string, sdbus::Variant>> userInfoForBackup_forCategory(
      const std::string& uid, const std::string& category) override;
  void setUserInfo_forBackup_forCategory(const std::map<std::string, sdbus::Variant>& userInfo,
                                         const std::string& uid, const std::string& category) override;
  std::vector<std::string> pathSuffixExclusionFilter() override;
  void setPathSuffixExclusionFilter(const std::vector<std::string>& filter) override;
  void activate() override;
  void activateAndBackupImmediately() override;
  void activateAndBackupImmediatelyForUID(const std::string& uid) override;
  void pause() override;
  void startBackup(const std::string& uid) override;
  void startTally(const std::string& uid) override;
  void cancelBackup(const std::string& uid) override;
  void takeOverGuestBackup(const std::string& uid) override;
  bool stopManagingBackup(const std::string& uid) override;
  std::string startManagingVolumeWithBSDName(const std::string& bsdName) override;
  std::tuple<std::string, bool> startManagingVolumeWithBSDName_didSucceed(const std::string& bsdName) override;
  wire::DatabaseWire database() override;
  wire::HeartbeatWire heartbeat() override;
  std::vector<wire::OutcomeWire> outcomeForBackup(const std::string& uid) override;

  // Checks the caller, runs `work`, and turns an engine failure into a D-Bus error.
  // A user other than root may not put a backup on the disk of the system
  // or of his own home folder: com.qsc.skerrow.Error.Refused saying why.
  void refuseSystemOrHomeVolume(const std::string& bsdName);
  template <class Work>
  auto guarded(Work&& work) -> decltype(work());

  const std::shared_ptr<QSSkerrowBackupService> service_;
  const std::string owner_;
};
