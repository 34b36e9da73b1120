// The engine server: the one process-wide object that everything hangs off.
//
// Start-up (`init`) reads the four options (matched ignoring case, each
// occurrence applied and logged), chooses the permanent store folder,
// starts the repeating scheduling timer on the main loop (60 s, or 10 s
// with "-noSchedule"), makes the store folder when missing and subscribes
// to the workspace's mount notices, loads the backup database, creates the
// two pipeline stages and installs each user's stored exclusion filter;
// unless "-noRealtime" was given, it then becomes the delegate of the
// continuous-backup watcher, starts it, and has it watch every admitted
// user's home folder (a user admitted later is watched from then on).
// Watcher events are handed to the second stage; when the watcher reports
// that events of a file system were dropped, the next timer tick backs up
// every scheduled backup whose home folder lies on that file system
// (QSSkerrowServerRealtime.cpp).
//
// The server owns the live table of backups (uid to entry; persistent
// entries are saved in "backupdb.plist", transient ones live while their
// disk is mounted) and each user's exclusion expression.  Everything but the
// three table accessors and runPerDestination runs on the main loop's
// thread.  Work reaches the pipeline as tokens: the first stage counts the
// user's home folder, the second stage counts and copies into the backup
// folder, and the token's last run brings the end of a backup back to the
// main thread, where the completion date is recorded and saved.
//
// The singleton cannot be copied or freed by clients: `copy` and `retain`
// answer the instance itself, `release` does nothing, `retainCount` is the
// largest 32-bit value, and a second `allocWithZone` answers nothing.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "Engine/conversion/QSBackupConverter.h"
#include "Engine/pipeline/QSFSWatcher.h"
#include "Engine/pipeline/QSFSWatcherDelegate.h"
#include "Engine/pipeline/QSFirstStage.h"
#include "Engine/pipeline/QSPipelineHost.h"
#include "Engine/pipeline/QSSecondStage.h"
#include "Engine/pipeline/QSTokenDelegate.h"
#include "Engine/records/QSBackupEntry.h"
#include "Engine/server/QSOutcomeBook.h"
#include "Engine/server/QSServerEnvironment.h"
#include "platform/Date.h"
#include "platform/NotificationCenter.h"
#include "platform/Object.h"
#include "platform/ThreadSafeDictionary.h"
#include "platform/Value.h"

class QSSkerrowServer : public platform::Object,
                        public QSPipelineHost,
                        public QSTokenDelegate,
                        public QSBackupConverterDelegate,
                        public QSFSWatcherDelegate {
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
  bool skipTransfer() const override { return skipTransfer_; }
  bool followSchedule() const { return followSchedule_; }
  bool supportsContinuousBackup() const override { return !withoutContinuousBackup_.load(); }
  // One-way from a client: changes the answer of supportsContinuousBackup only.
  // Switching it off also ends warm walks: without continuous backup the
  // engine does not rely on the watcher.
  void setSupportsContinuousBackup(bool supports);

  // The watcher's events (its thread): handed unchanged to the second stage.
  void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) override;
  // Remembers the file system for a backup of its homes at the next timer tick.
  void fsWatcherDidDropEventsOnDevice(uint64_t device) override;
  // Every change the watcher read (its thread): noted in the change journal.
  void fsWatcherDidSeeChange(const platform::FileSystemEvent& event) override;
  // The change journal's synchronizer while continuous backup is on: the
  // homes and the backup folders of the disks mounted now are watched and
  // followed, and the watcher catches up with every change made so far.
  bool synchronizeChangeJournal();
  // The watcher started at start-up, or nothing.
  const std::shared_ptr<QSFSWatcher>& watcher() const { return watcher_; }

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
  void scanVolumeWithBSDName_mountPath_onVolume(const std::string& bsdName, const std::string& mountPath,
                                                const std::string& volumeName);
  // Treats the mounted volume of that BSD name as gone and back; false when none is mounted.
  bool remountDriveWithBSDName(const std::string& bsdName);

  // The live table (thread-safe accessors).
  std::shared_ptr<QSBackupEntry> backupEntryWithUID(const std::string& uid) const;
  void setBackupEntry_forUID(const std::shared_ptr<QSBackupEntry>& entry, const std::string& uid);
  void removeBackupEntryForUID(const std::string& uid);
  std::vector<std::string> backupUIDs() const { return backupEntryMap_.allKeys(); }

  // The database file, "backupdb.plist" in the permanent store folder.
  std::string backupDatabasePath() const;
  void loadBackupDatabase();
  // The database file's contents: the archives of the persistent entries,
  // in the given order, and the users' exclusion expressions.
  static platform::Dictionary databaseContents(const std::vector<std::shared_ptr<QSBackupEntry>>& entries,
                                               const std::map<std::string, std::string>& exclusionExpressions);
  bool saveBackupDatabase();
  // The backup's folder on its mounted disk, or nothing.
  std::optional<std::string> destinationPathForUID(const std::string& uid) const;
  // Every mounted entry, uid to entry (copies).
  std::map<std::string, std::shared_ptr<QSBackupEntry>> db2() const;
  const std::map<std::string, std::string>& exclusionFilterMap() const { return exclusionFilterMap_; }

  std::shared_ptr<QSPerUIDEnvironment> insureEnviromentForEntry(const std::shared_ptr<QSBackupEntry>& entry);
  void terminateEnvironmentForEntry(const std::shared_ptr<QSBackupEntry>& entry);

  // Conversions of older backup folders.
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override;
  void conversionDidFinishByConverter_withNewUIDs(const std::shared_ptr<QSBackupConverterProtocol>& converter,
                                                  const std::vector<std::string>& newUIDs) override;
  void _conversionDidFinishWithArgs(const std::shared_ptr<QSBackupConverterProtocol>& converter,
                                    const std::vector<std::string>& newUIDs);
  std::optional<platform::Value> conversionStateForMountPath(const std::string& mountPath) const;
  size_t activeConverterCount() const { return activeConverters_.size(); }
  // Installs the maker of converters for volumes that appear from now on (main thread).
  void setConverterFactory(QSServerEnvironment::ConverterFactory factory) { converterFactory_ = std::move(factory); }
  // Asks every running converter to stop and waits for them up to
  // `timeout`; false when one is still running then.
  bool stopConverters(std::chrono::milliseconds timeout);

  // Work for clients (a null client stands for the engine itself).
  using Client = std::shared_ptr<QSBackupClientProtocol>;
  void startBackup_forClient(const std::string& uid, const Client& client);
  void startTally_forClient(const std::string& uid, const Client& client);
  void pipelineTokenWithUID_backupFlag_forClient(const std::string& uid, bool backup, const Client& client);
  void cancelPipe_forClient(const std::string& uid, const Client& client);
  void rescheduleBackupsForClient_uid_startImmediately(const Client& client, const std::string& uid, bool start);
  void rescheduleBackupsForClient_startImmediately(const Client& client, bool start);
  void cancelAndUnscheduleJobsForClient(const Client& client);
  // A token's stage has finished with it (stage threads): after the first
  // stage a token naming a destination moves on to the second stage; after
  // the second a backup's end is recorded on the main thread.
  void runPerDestination(QSToken& token, QSUserEnvironment& environment) override;
  void runPerDestination(QSToken& token, QSPerUIDEnvironment& environment) override;
  // A token's journey ended: its outcome is recorded on the main thread.
  void tokenDidEnd(QSToken& token, const QSBackupOutcome& outcome) override;
  // Keeps `outcome` as its backup's last and logs its summary (main thread).
  void recordOutcome(const QSBackupOutcome& outcome);
  // How the backup's last run ended, or nothing (main thread).
  std::optional<QSBackupOutcome> outcomeForBackup(const std::string& uid) const {
    return outcomes_.outcomeForUID(uid);
  }
  std::optional<QSBackupOutcome> lastCleanBackupForBackup(const std::string& uid) const {
    return outcomes_.lastCleanBackupForUID(uid);
  }
  void forgetOutcomeForBackup(const std::string& uid) { outcomes_.forget(uid); }
  void finishBackupOnMainThreadForUID(const std::string& uid);
  // Admits the client's user to the first stage and attaches the client to
  // it at the main loop's next pass; false when the user cannot be served.
  // The service object handed to the client is made by the caller.
  bool backupServiceForClient(const Client& client);

  // The user's exclusion filter.
  std::optional<std::string> pathSuffixExclusionFilterForClient(const Client& client) const;
  void setPathSuffixExclusionFilter_forClient(const std::optional<std::string>& expression, const Client& client);

  // The engine's clock (the environment's when it gave one).
  platform::Date now() const;

  QSFirstStage* firstStage() const { return firstStage_.get(); }
  QSSecondStage* secondStage() const { return secondStage_.get(); }
  // Ends the stages' threads (teardown; tests).
  bool stopPipeline(std::chrono::milliseconds timeout);

  struct Passkey {
    explicit Passkey() = default;
  };
  explicit QSSkerrowServer(Passkey) {}

 private:
  void init(const QSServerEnvironment& environment);
  bool installExclusionFilter(const std::string& userName, const std::optional<std::string>& expression);
  std::optional<std::string> shortUserNameOf(const Client& client) const;
  void keepUnreadableDatabaseAside();
  void startWatcher(const std::shared_ptr<QSFSWatcher>& watcher);
  void watchHomeOfUser(const std::string& userName);
  // Gives the change journal its synchronizer, or takes it away, as continuous backup is on or off.
  void updateChangeJournal();
  // Stops watching and following the backup folder of the disk at `mountPath`.
  void forgetBackupFolderOnDiskAt(const std::string& mountPath);
  // Starts a backup of every scheduled entry whose home lies on a file system
  // that dropped events since the last tick; answers their uids.
  std::set<std::string> startBackupsAfterDroppedEvents();
  void removeStaleDatabaseTemporaries();

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

  platform::ThreadSafeDictionary<std::string, std::shared_ptr<QSBackupEntry>> backupEntryMap_;
  std::map<std::string, std::string> exclusionFilterMap_;
  std::map<std::string, std::shared_ptr<QSBackupConverterProtocol>> activeConverters_;
  std::unique_ptr<QSFirstStage> firstStage_;
  std::unique_ptr<QSSecondStage> secondStage_;
  QSServerEnvironment::ConverterFactory converterFactory_;
  std::function<platform::Date()> clock_;
  std::shared_ptr<QSFSWatcher> watcher_;
  std::mutex droppedLock_;
  std::set<uint64_t> droppedDevices_;
  // The database file could not be read at start-up: it is kept aside before the next save.
  bool databaseUnreadable_ = false;
  QSOutcomeBook outcomes_;
};
