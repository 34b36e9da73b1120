// The second stage of the pipeline: one per-destination environment per
// managed backup, keyed by the backup's uid.  Creating an environment
// starts its thread; terminating one cancels it (the thread ends at its
// next look at its cancel flag) and forgets it.  The stage's lock guards
// changes of the directory; lookups and enqueueing take only the
// directory's own lock.  Lock order: the stage's lock, then a user
// environment's, then a per-destination environment's.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "Engine/pipeline/QSPerUIDEnvironment.h"
#include "Engine/pipeline/QSPipelineHost.h"
#include "Engine/pipeline/QSToken.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "platform/NotificationCenter.h"
#include "platform/ThreadSafeDictionary.h"

class QSSecondStage : public QSBackupConversionChangedNotificationProtocol {
 public:
  // `host` answers the engine-wide switches; `center` carries the
  // backup-entry notifications (the default centre when none is given).
  // Without `startThreads` environments are made but not started (tests run their jobs by hand).
  explicit QSSecondStage(const QSPipelineHost* host = nullptr, platform::NotificationCenter* center = nullptr,
                         bool startThreads = true);
  ~QSSecondStage() override;
  QSSecondStage(const QSSecondStage&) = delete;
  QSSecondStage& operator=(const QSSecondStage&) = delete;

  void createEnvironmentForUID_withUserEnvironment(const std::string& uid,
                                                   const std::shared_ptr<QSUserEnvironment>& userEnvironment);
  std::shared_ptr<QSPerUIDEnvironment> environmentForUID(const std::string& uid) const;
  std::shared_ptr<QSUserEnvironment> userEnvironmentForUID(const std::string& uid) const;
  bool enqueue_forUID(const std::shared_ptr<QSToken>& token, const std::string& uid);
  void cancelPipeForUser(const std::string& shortUserName);
  void terminateEnvironmentForUID(const std::string& uid);
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override;
  void distributeFSEvent(const QSPerUIDEnvironment::FSEvent& event);
  std::vector<std::string> uids() const;

  // Ends every environment's thread (engine teardown); answers whether all
  // ended within `timeout`.
  bool stopAll(std::chrono::milliseconds timeout);

 private:
  std::vector<std::shared_ptr<QSPerUIDEnvironment>> environments() const;

  const QSPipelineHost* host_;
  platform::NotificationCenter* center_;
  const bool startThreads_;
  platform::ThreadSafeDictionary<std::string, std::shared_ptr<QSPerUIDEnvironment>> queueByUID_;
  // Environments terminated but perhaps still finishing a job.
  std::vector<std::shared_ptr<QSPerUIDEnvironment>> terminated_;
  mutable std::recursive_mutex lock_;
};
