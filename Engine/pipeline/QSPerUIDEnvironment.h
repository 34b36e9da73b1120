// One managed backup's place in the second stage of the pipeline: a thread
// of its own that runs the backup's jobs one at a time and, between jobs,
// serves the real-time events of continuous backup.
//
// A job is a token handed over by the first stage, carrying a private copy
// of the source tree and tally.  The thread walks the backup folder into
// that tree (destination tally), runs a dry transfer over it (transfer
// tally), and, when the token asks for a backup, copies; each step is
// told to the user's client and recorded in `stage`:
//   0 housekeeping, 1 destination tally running, 2 destination tally done,
//   3 transfer running, 4 transfer done, 5 job finished (also when idle).
// At the end of a job that was not cancelled the token is run again (on
// this thread), which tells its delegate that the backup is finished.
//
// The environment holds at most one token.  It is its own lock (a
// recursive monitor) for the token queue, `isPipeCancelled` when set
// through cancelPipe, the stage and the client notices of stage changes;
// the walks run outside it.  Version depth, schedule, categories,
// destination folder and tally sit in lock-guarded holders.  It follows
// its entry's changes through the backup-entry notifications and the
// user environment's "client" key.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "Engine/files/FSDepthFirstVisitor.h"
#include "Engine/files/QSDestinationTraits.h"
#include "Engine/pipeline/QSAtomicHolders.h"
#include "Engine/pipeline/QSFSWatcherEvent.h"
#include "Engine/pipeline/QSIdleWait.h"
#include "Engine/pipeline/QSJobReport.h"
#include "Engine/pipeline/QSPipelineHost.h"
#include "Engine/pipeline/QSSettledPass.h"
#include "Engine/pipeline/QSToken.h"
#include "Engine/pipeline/QSTransferInstrumentDelegate.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "Engine/records/QSMutableTally.h"
#include "platform/KeyValueObserving.h"
#include "platform/NotificationCenter.h"
#include "platform/OVQueue.h"
#include "platform/OVThread.h"
#include "platform/Object.h"

class QSPerUIDEnvironment : public platform::Object,
                            public FSDepthFirstVisitor,
                            public QSTransferInstrumentDelegate,
                            public platform::KeyValueObserver {
 public:
  enum Stage : int32_t {
    kStageHousekeeping = 0,
    kStageDestinationTally = 1,
    kStageDestinationTallyDone = 2,
    kStageTransfer = 3,
    kStageTransferDone = 4,
    kStageFinished = 5,
  };
  // Empty polls of the event queue before the thread starts to pause between polls.
  static constexpr uint64_t kBusyPolls = 100;

  using FSEvent = std::shared_ptr<const QSFSWatcherEvent>;

  struct Passkey {
    explicit Passkey() = default;
  };
  QSPerUIDEnvironment(Passkey, std::shared_ptr<QSUserEnvironment> userEnvironment, std::string uid,
                      const QSPipelineHost* host, platform::NotificationCenter* center);
  ~QSPerUIDEnvironment() override;

  // Observes the backup-entry notifications of `center` (the default
  // centre when none is given) and the user environment's client.
  static std::shared_ptr<QSPerUIDEnvironment> initWithUserEnvironment_uid(
      std::shared_ptr<QSUserEnvironment> userEnvironment, std::string uid, const QSPipelineHost* host,
      platform::NotificationCenter* center = nullptr);

  void start();

  // Takes the token when none is queued (clearing the pipe's cancellation);
  // otherwise logs "<signature> Unable to enqueue" and drops it.
  bool enqueue(const std::shared_ptr<QSToken>& token);
  // Stops the running job at its next check (a walk between items, a copy
  // within one chunk) and empties the queue at once, so the next request is
  // taken as soon as the job has wound down.  A token whose job had not
  // begun ends as cancelled here; the running job ends as cancelled itself.
  void cancelPipe();
  // cancelPipe, and ends the thread at its next look at its cancel flag.
  void cancel();
  // Unless the job was cancelled, runs the job's token with this
  // environment as its object; then takes it off the queue.
  void dischargePipe();
  std::shared_ptr<QSToken> currentToken() const;
  // The environment's lock (taken after the user environment's, never before).
  std::recursive_mutex& monitor() const { return lock_; }
  bool isPipeCancelled() const { return isPipeCancelled_.load(); }

  int32_t stage() const;
  void setStage(int32_t stage);

  std::shared_ptr<QSMutableTally> tally() const { return tally_.get(); }
  void setTally(std::shared_ptr<QSMutableTally> tally) { tally_.set(std::move(tally)); }
  uint32_t versionDepth() const { return static_cast<uint32_t>(versionDepth_.get()); }
  void setVersionDepth(uint32_t depth) { versionDepth_.set(static_cast<int32_t>(depth)); }
  bool isScheduled() const { return isScheduled_.get(); }
  void setScheduled(bool scheduled) { isScheduled_.set(scheduled); }
  std::shared_ptr<const std::set<std::string>> categoryFilter() const { return categoryFilter_.get(); }
  void setCategoryFilter(std::set<std::string> categories);
  std::shared_ptr<const std::string> destinationPath() const { return destinationPath_.get(); }
  void setDestinationDirectory(std::optional<std::string> path);

  const std::string& uid() const { return uid_; }
  const std::shared_ptr<QSUserEnvironment>& perUserEnvironment() const { return userEnvironment_; }

  // Continuous backup (QSPerUIDEnvironmentRealtime.cpp).  An event is
  // queued when continuous backup is on and it concerns this user's home
  // folder (fsWatcherEventIsOneWeCareAbout); a change of a file whose copy
  // is still waiting in the queue merges into that copy.
  void enqueueFSEvent(FSEvent event);
  // A rename (type 3, old and new path) or a content change (type 4, one
  // path) whose path (the new one), normalised, lies in the home folder.
  bool fsWatcherEventIsOneWeCareAbout(const FSEvent& event) const;
  // Whether the changed file at `pathSuffix` (its path below the home
  // folder) is to be copied: this backup's categories, the user's exclusion
  // filter, the mail database and the black list (QSPathFilter).
  bool shouldProceedForPathSuffix_withAttributes(const std::string& pathSuffix,
                                                 const platform::FileAttributes* attributes) const;
  // Stores the file at `sourcePath` (in the home folder) as its next
  // version in the backup folder and prunes the oldest; with
  // `onlyDoARenameOnLastVersion`, renames the newest stored version to the
  // file's name instead (a rename that changed only letter case).
  void copyFile_withAttributes_onlyDoARenameOnLastVersion(const std::string& sourcePath,
                                                          const platform::FileAttributes* attributes,
                                                          bool onlyDoARenameOnLastVersion);
  size_t pendingFSEventCount() const { return fsEventQueue_.count(); }
  // Events taken off the queue and dealt with (copied, or dropped for a reason) so far.
  uint64_t processedFSEventCount() const { return realtimeProcessed_.load(); }
  uint64_t realtimePollCount() const { return realtimePolls_.load(); }

  // Judges one failed copy: past the client's limit of failures in a row the
  // backup is stopped; otherwise the error goes to the client with this uid.
  void transferInstrument_error(QSTransferInstrument& instrument, const std::shared_ptr<QSBackupError>& error) override;
  // The backup-entry notifications about this environment's uid.
  void consumeNotification(const platform::Notification& notification);
  // A new client of the user gets the running count at once.
  void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath,
                                                      const platform::KeyValueObservable* object,
                                                      const platform::KeyValueChangeInfo& change,
                                                      void* context) override;

  // Visitor side of the destination walk.
  std::shared_ptr<QSFSNode> nodeAtPath_attributes(const std::string& path,
                                                  const platform::FileAttributes& attributes) override;
  std::shared_ptr<QSFSNode> groupNodeAtPath_versions(const std::string& path,
                                                     const QSFSVersionArray& versions) override;

  // The thread's body; one job; the two phases of a job.
  void run();
  void runJobWithToken(const std::shared_ptr<QSToken>& token);
  void runDestinationTallyWithToken(const std::shared_ptr<QSToken>& token);
  void runBackupWithToken(const std::shared_ptr<QSToken>& token);

  // How the thread pauses (tests replace it).
  void setSleepFunction(std::function<void(uint32_t microseconds)> sleep) { sleep_ = std::move(sleep); }
  // Asks the thread to end and answers whether it did within `timeout`.
  bool stopThread(std::chrono::milliseconds timeout);

 protected:
  // One real-time event taken off the queue, on the environment's thread.
  virtual void processRealtimeEvent(const FSEvent& event);

 private:
  void observe(platform::NotificationCenter* center);
  void stopObservingClient();
  bool threadCancelled() const;
  void waitForWork();
  std::unique_ptr<class QSTransferInstrument> makeInstrument(const std::shared_ptr<QSToken>& token, bool dryRun);
  // Makes `token` the running job, unless a cancel took it off the queue.
  bool beginJob(const std::shared_ptr<QSToken>& token);
  void endJob();
  // After a job that walked: keeps it as a pass without work for the next
  // pass of the same backup to stand on, or forgets the one kept before.
  void keepOrForgetSettledPass(const std::shared_ptr<QSToken>& token);

  const std::string uid_;
  std::shared_ptr<platform::OVThread> thread_;
  platform::OVQueue<std::shared_ptr<QSToken>> queue_;
  platform::OVQueue<FSEvent> fsEventQueue_;
  const std::shared_ptr<QSUserEnvironment> userEnvironment_;
  // The user environment's client proxy, which is never replaced: taken
  // once so that nothing here needs the user environment's lock (which is
  // taken before this environment's, never after).
  const std::shared_ptr<QSSkerrowClientProxy> client_;
  const QSPipelineHost* host_;
  std::atomic<bool> isPipeCancelled_{false};
  // The running job, its own termination flag (set by cancelPipe, cleared
  // only when the next job begins: queueing a token does not clear it) and
  // its account of failures.
  std::shared_ptr<QSToken> jobToken_;
  std::atomic<bool> jobCancelled_{false};
  std::unique_ptr<QSJobReport> report_;
  int32_t stage_ = kStageFinished;
  atomic<int32_t> versionDepth_;
  atomic<bool> isScheduled_;
  retained_atomic_ptr<const std::set<std::string>> categoryFilter_;
  retained_atomic_ptr<const std::string> destinationPath_;
  std::shared_ptr<QSFSMutableNode> root_;
  // Where the job's transfer has work, as its dry run found it (the job's thread only).
  std::shared_ptr<const class QSTransferPlan> transferPlan_;
  retained_atomic_ptr<QSMutableTally> tally_;

  // The job's destination, probed when the job starts.
  QSDestinationTraits traits_;
  std::optional<uint64_t> destinationDevice_;
  std::optional<uint64_t> destinationInode_;
  // Where the journal stood when the job's backup-folder walk began (none
  // when it kept no memo), and the tally and settings of a dry run that
  // found no work (none otherwise).
  std::optional<uint64_t> destinationMark_;
  std::shared_ptr<const QSTally> noWorkTally_;
  QSSettledPass::Settings noWorkSettings_;
  // Errors the job reported.
  size_t errorCount_ = 0;

  // Continuous backup: paths whose content change is queued and not yet
  // taken (a burst of saves merges into one copy), and the traits of the
  // destination the last real-time copy went to.
  std::mutex pendingLock_;
  std::set<std::string> pendingContentChanges_;
  std::string realtimeTraitsPath_;
  QSDestinationTraits realtimeTraits_;
  const std::string& realtimeHome() const;
  mutable std::once_flag realtimeHomeOnce_;
  mutable std::string realtimeHome_;

  std::atomic<bool> cancelRequested_{false};
  std::atomic<uint64_t> realtimePolls_{0};
  std::atomic<uint64_t> realtimeProcessed_{0};
  QSIdleWait idle_;  // woken when a token or an event is queued, or the thread is cancelled
  std::function<void(uint32_t)> sleep_;
  platform::NotificationCenter* center_ = nullptr;
  std::vector<platform::NotificationCenter::ObserverId> observers_;
  std::atomic<bool> observingClient_{false};
  mutable std::recursive_mutex lock_;
};
