// The engine server: the one process-wide object that everything hangs off.
//
// Start-up (`init`) reads the four options (matched ignoring case, each
// occurrence applied and logged), chooses the permanent store folder,
// starts the repeating scheduling timer on the main loop (60 s, or 10 s
// with "-noSchedule"), makes the store folder when missing and subscribes
// to the workspace's mount notices.  The backup database, the pipeline
// stages and the continuous-backup watcher are not part of this build yet:
// start-up says so in the log and goes on without them.
//
// The singleton cannot be copied or freed by clients: `copy` and `retain`
// answer the instance itself, `release` does nothing, `retainCount` is the
// largest 32-bit value, and a second `allocWithZone` answers nothing.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Engine/QSServerEnvironment.h"
#include "platform/Object.h"
#include "platform/NotificationCenter.h"
#include "platform/Value.h"

class QSSkerrowServer : public platform::Object {
 public:
  // The single server of the process, made (from the process's own
  // environment) on first use.  Thread-safe.
  static std::shared_ptr<QSSkerrowServer> instance();
  // A new, uninitialised server while no instance exists; nothing afterwards.
  static std::shared_ptr<QSSkerrowServer> allocWithZone();
  // A server started with `environment`, apart from the singleton (tests).
  static std::shared_ptr<QSSkerrowServer> initWithEnvironment(const QSServerEnvironment& environment);

  static double jobSchedulingTimerPeriod() { return 60.0; }
  // The computer's name, read once and kept.
  static const std::string& machineName();
  // Builds the black list (once).
  static void initialize();

  ~QSSkerrowServer() override;

  // The singleton's lifetime answers.
  std::shared_ptr<QSSkerrowServer> copy() { return self<QSSkerrowServer>(); }
  std::shared_ptr<QSSkerrowServer> retain() { return self<QSSkerrowServer>(); }
  std::shared_ptr<QSSkerrowServer> autorelease() { return self<QSSkerrowServer>(); }
  void release() {}
  uint32_t retainCount() const { return UINT32_MAX; }

  // One-way from a client: ends the process at once with status 0.
  [[noreturn]] void exit();

  const std::string& permanentStoreDir() const { return dbDir_; }
  bool skipTransfer() const { return skipTransfer_; }
  bool followSchedule() const { return followSchedule_; }
  bool supportsContinuousBackup() const { return !withoutContinuousBackup_.load(); }
  // One-way from a client: changes the answer of supportsContinuousBackup only.
  void setSupportsContinuousBackup(bool supports) { withoutContinuousBackup_.store(!supports); }

  // The scheduling timer's interval, as started.
  double jobSchedulingInterval() const { return timerInterval_; }
  void callbackForJobSchedulingTimer();
  uint64_t jobSchedulingTimerTicks() const { return timerTicks_.load(); }

  // The scheduler's job list: always a new, empty dictionary.
  platform::Dictionary jobs() const { return {}; }

  // Growl application-bridge answers (the engine posts no notification).
  std::string applicationNameForGrowl() const { return "Skerrow"; }
  platform::Dictionary registrationDictionaryForGrowl() const;
  void growlIsReady() {}

  // Mount notices of the workspace, and what they become.
  void observeWorkspaceNotification(const platform::Notification& notification);
  void diskDidAppearWithBSDName_mountPath_onVolume(const std::string& bsdName, const std::string& mountPath,
                                                   const std::string& volumeName);
  void diskDidDisapperAtMountPoint(const std::string& mountPath);

  struct Passkey {
    explicit Passkey() = default;
  };
  explicit QSSkerrowServer(Passkey) {}

 private:
  void init(const QSServerEnvironment& environment);

  std::string dbDir_;
  bool skipTransfer_ = false;
  bool followSchedule_ = true;
  std::atomic<bool> withoutContinuousBackup_{false};
  double timerInterval_ = 0;
  std::atomic<uint64_t> timerTicks_{0};
  platform::RunLoop* runLoop_ = nullptr;
  platform::RunLoop::SourceId timer_ = 0;
  platform::NotificationCenter* workspace_ = nullptr;
  std::vector<platform::NotificationCenter::ObserverId> workspaceObservers_;
};
