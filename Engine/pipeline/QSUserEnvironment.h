// One user's place in the first stage of the pipeline: a thread of its own
// that counts the user's home folder whenever work is queued, and the queue
// of tokens that ride on that count.
//
// Each cycle of the thread waits (polling every 100 ms) until a token is
// queued, walks the home folder once into a fresh source tree and tally,
// telling the client as it goes, and then, under the environment's lock,
// runs every queued token: a token that names a destination first gets a
// private copy of tree and tally.  Running a token calls its delegate on
// this thread, which hands it on to the second stage.  Then the queue is
// emptied.  `cancelPipe` stops the walk under way and keeps the cycle from
// running any token.
//
// A walk that was cut short by a cancel never serves a token, not even one
// queued after the cancel (queueing clears the pipe's cancellation, but the
// walk's own flag stays set until the cycle ends): such a token waits for a
// cycle of its own instead of riding on a partial tree, and the tokens that
// were queued when the cancel came are dropped.
//
// The environment is its own lock (a recursive monitor) for the queue, the
// client, the exclusion filter and the cycle's product; the walk runs
// outside it, so tokens can be queued during a walk and ride on it.  Lock
// order for one backup: this lock, then the per-destination environment's.
// Setting the client is announced to key-value observers of "client".
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "Engine/clients/QSSkerrowClientProxy.h"
#include "Engine/files/FSDepthFirstVisitor.h"
#include "Engine/files/QSFSNode.h"
#include "Engine/pipeline/QSIdleWait.h"
#include "Engine/pipeline/QSSettledPass.h"
#include "Engine/pipeline/QSToken.h"
#include "Engine/records/QSMutableTally.h"
#include "platform/KeyValueObserving.h"
#include "platform/OVThread.h"
#include "platform/Object.h"
#include "platform/RegexPredicate.h"

class QSUserEnvironment : public platform::Object,
                          public FSDepthFirstVisitor,
                          public platform::KeyValueObservable,
                          public QSBackupConversionChangedNotificationProtocol {
 public:
  // The error limit while no client is attached.
  static constexpr uint64_t kDefaultErrorLimit = 100;
  // The longest pause between two looks at an empty queue (queueing a token ends it).
  static constexpr uint32_t kIdleSleepMicroseconds = 100000;

  struct Passkey {
    explicit Passkey() = default;
  };
  QSUserEnvironment(Passkey, std::string name, std::string homeDir);
  ~QSUserEnvironment() override;

  static std::shared_ptr<QSUserEnvironment> initWithUserName_homeDirectory(std::string name, std::string homeDir);

  // Starts the environment's thread.
  void start();

  const std::string& userName() const { return name_; }
  const std::string& userHome() const { return homeDir_; }

  // Queues a token.  One that names a destination merges into the first
  // queued token without a uid or with its uid (taking over destination,
  // uid, backup wish, version depth and, for a backup, the categories);
  // a source-only token is queued only into an empty queue.  Queueing
  // clears the pipe's cancellation.
  void enqueue(const std::shared_ptr<QSToken>& token);
  size_t queueCount() const { return queueCount_.load(); }

  // Attaches a client (or none): the error limit becomes its answer, or 100.
  void setClient(std::shared_ptr<QSBackupClientProtocol> client);
  // The proxy through which the client is called (never replaced).
  std::shared_ptr<QSSkerrowClientProxy> client() const;
  void getClient_registrationTime(std::shared_ptr<QSSkerrowClientProxy>* client, double* registrationTime) const;
  uint64_t maximumContiguousErrorsClientWants() const { return maximumContiguousErrorsClientWants_.load(); }

  std::shared_ptr<const platform::RegexPredicate> exclusionFilter() const;
  void setExclusionFilter(std::shared_ptr<const platform::RegexPredicate> filter);

  // One walk of the home folder into the cycle's tree and tally.
  void runSourceTally();
  // The count of a cycle that stands on `pass` (nothing changed since it):
  // the client is told as for a walk, and the tree stays the bare top folder.
  void runSettledSourceTally(const QSSettledPass& pass);
  // While a token other than the cycle's last is being run: a copy of the
  // cycle's tree and tally; else nothing (the last token takes the tree
  // itself, which the second stage then changes).
  void getDeepCopyOfSourceTree_copyOfSourceTally(std::shared_ptr<QSFSMutableNode>* tree,
                                                 std::shared_ptr<QSMutableTally>* tally);

  void cancelPipe();
  // Removes the first queued token of `uid`; when it was the only one, also
  // cancels the pipe.  Answers the removed token, or nothing.
  std::shared_ptr<QSToken> cancelPipeForUID(const std::string& uid);
  // Ends the thread after the cycle under way.  A thread waiting for work
  // keeps waiting (see stopThread).
  void cancel();
  bool isPipeCancelled() const { return isPipeCancelled_.load(); }
  bool isCancelled() const { return isCancelled_.load(); }

  // Ends the thread also while it waits for work, and answers whether it
  // ended within `timeout` (used when an environment is replaced or the
  // engine is torn down).
  bool stopThread(std::chrono::milliseconds timeout);

  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override;

  // The environment's lock.
  std::recursive_mutex& monitor() const { return lock_; }

  // The thread's body, and one cycle of it (tests run cycles directly).
  void run();
  void runCycle();
  // How the thread pauses (tests replace it).
  void setSleepFunction(std::function<void(uint32_t microseconds)> sleep) { sleep_ = std::move(sleep); }

  // Visitor side of the source walk.
  void startTraversalOfPath(const std::string& path) override;
  std::shared_ptr<QSFSNode> nodeAtPath_attributes(const std::string& path,
                                                  const platform::FileAttributes& attributes) override;

  std::any valueForKey(const std::string& key) const override;

 private:
  void append(const std::shared_ptr<QSToken>& token);
  // Runs the queued tokens (only the first when the cycle stands on
  // `settled`): each wanting a destination tally gets a tree, where its
  // home walk began, and the pass it stands on (if any).
  void dispatchQueuedTokens(const std::shared_ptr<const QSSettledPass>& settled);
  // Starts the walk ahead of time of each queued token's backup folder (under the lock).
  void startDestinationPrefetches();
  // The only queued token, when the cycle may stand on a pass without work
  // instead of walking (and the settings it would walk with); else nullptr.
  std::shared_ptr<QSToken> settleCandidate(QSSettledPass::Settings* settings) const;
  // The pass the cycle stands on, or nullptr: asks QSSettledPasses outside
  // the lock, then seals the token against merges under it.
  std::shared_ptr<const QSSettledPass> settle();

  const std::string homeDir_;
  const std::string name_;
  std::shared_ptr<platform::OVThread> thread_;
  std::vector<std::shared_ptr<QSToken>> queue_;
  std::atomic<size_t> queueCount_{0};
  const std::shared_ptr<QSSkerrowClientProxy> client_;
  std::atomic<uint64_t> maximumContiguousErrorsClientWants_{kDefaultErrorLimit};
  std::atomic<double> clientRegistrationTime_{0};
  std::shared_ptr<QSFSMutableNode> root_;
  std::shared_ptr<QSMutableTally> tally_;
  double cachedClientRegistrationTime_ = 0;
  std::atomic<bool> isPipeCancelled_{false};
  // The running walk's termination flag: set by cancelPipe, cleared only
  // when the next cycle starts (queueing a token does not clear it).
  std::atomic<bool> walkCancelled_{false};
  // How many of the queued tokens the last cancel of this cycle applied to.
  size_t cancelledTokens_ = 0;
  std::atomic<bool> isCancelled_{false};
  std::atomic<bool> stopRequested_{false};
  bool isProductExposed_ = false;
  // The token of a cycle that stands on a settled pass, while it runs:
  // tokens queued meanwhile wait for a cycle of their own instead of
  // merging into it.
  std::shared_ptr<QSToken> sealedToken_;
  // Where the cycle's home walk began, for the tokens it serves.
  std::optional<QSToken::SourceWalk> sourceWalk_;
  std::shared_ptr<const platform::RegexPredicate> exclusionFilter_;
  QSIdleWait idle_;  // woken when a token is queued or the thread is stopped
  std::function<void(uint32_t)> sleep_;
  mutable std::recursive_mutex lock_;
};
