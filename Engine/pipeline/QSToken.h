// The runnable that travels through the backup pipeline: who is called
// when a stage has served the request (a QSTokenDelegate), what it concerns
// (destination folder, backup identifier, version depth, whether files are
// really copied, the categories to back up) and, once the first stage has
// counted the user's files, a private copy of the counted tree and tally.
//
// Invariant: a token wants a destination tally exactly when both the
// destination path and the uid are present.  Destination path, uid, tree,
// tally and context are read and written under the token's lock;
// `wantsBackup` and `versionDepth` are atomic, since a request that
// piggybacks on a running token changes them while stage threads read them.
#pragma once

#include <atomic>
#include <optional>
#include <set>
#include <string>

#include "Engine/pipeline/QSRunnable.h"
#include "Engine/pipeline/QSTokenDelegate.h"
#include "Engine/records/QSBackupOutcome.h"
#include "Engine/records/QSMutableTally.h"

class QSDestinationPrefetch;
class QSFSMutableNode;
struct QSSettledPass;

class QSToken : public QSRunnable {
 public:
  // A backup's categories: the token's context.
  using Categories = std::set<std::string>;

  explicit QSToken(Passkey passkey) : QSRunnable(passkey) {}

  // A token reporting to `delegate` (not owned; may be nullptr, and then
  // running the token only marks it finished).
  static std::shared_ptr<QSToken> initWithDelegate(QSTokenDelegate* delegate);

  // Run by a stage on its own thread when it has finished with the token:
  // registers the token as the thread's current runnable and calls the
  // delegate's runPerDestination for that stage.
  void runWithObject(QSUserEnvironment& environment);
  void runWithObject(QSPerUIDEnvironment& environment);
  // Tells the delegate how the token's journey ended (see QSTokenDelegate).
  // A token without uid (a count of the home folder alone) reports nothing.
  void endWithOutcome(const QSBackupOutcome& outcome);
  // Ends the token as cancelled before any work of its destination began.
  void endCancelled();

  void setDestinationPath_uid(std::optional<std::string> destinationPath, std::optional<std::string> uid);
  std::optional<std::string> destinationPath() const;
  std::optional<std::string> uid() const;
  bool wantsDestinationTally() const;

  // The categories a backup covers (nothing for a count, or a backup of an
  // entry without scheduled categories).  A token's context is always this,
  // so it is typed here instead of the runnable's general context.
  void setContext(std::optional<Categories> categories);
  std::optional<Categories> context() const;

  void setTree_tally(std::shared_ptr<QSFSMutableNode> tree, std::shared_ptr<QSMutableTally> tally);
  void getTree_tally(std::shared_ptr<QSFSMutableNode>* tree, std::shared_ptr<QSMutableTally>* tally) const;

  // The backup folder's walk made ahead of time for this token, if any;
  // taking it leaves none (dropping the last holder stops its walk).
  void setDestinationPrefetch(std::shared_ptr<QSDestinationPrefetch> prefetch);
  std::shared_ptr<QSDestinationPrefetch> takeDestinationPrefetch();

  // Where the change journal stood when the home walk that made the token's
  // tree began (QSWarmWalk::mark), with the exclusion filter it walked
  // with; nothing when the walk kept no memo.
  struct SourceWalk {
    uint64_t mark = 0;
    std::optional<std::string> exclusionExpression;
  };
  void setSourceWalk(std::optional<SourceWalk> walk);
  std::optional<SourceWalk> sourceWalk() const;
  // The pass without work this token's pass stands on instead of walking
  // (its tree is then the bare top folder); nullptr for a pass that walks.
  void setSettledPass(std::shared_ptr<const QSSettledPass> pass);
  std::shared_ptr<const QSSettledPass> settledPass() const;

  bool wantsBackup() const { return wantsBackup_.load(); }
  void setWantsBackup(bool wantsBackup) { wantsBackup_.store(wantsBackup); }
  uint32_t versionDepth() const { return versionDepth_.load(); }
  void setVersionDepth(uint32_t versionDepth) { versionDepth_.store(versionDepth); }

 private:
  template <class Environment>
  void runWithEnvironment(Environment& environment);

  QSTokenDelegate* tokenDelegate_ = nullptr;
  std::optional<std::string> destinationPath_;
  std::optional<std::string> uid_;
  std::optional<Categories> categories_;
  std::shared_ptr<QSFSMutableNode> tree_;
  std::shared_ptr<QSMutableTally> tally_;
  std::shared_ptr<QSDestinationPrefetch> prefetch_;
  std::optional<SourceWalk> sourceWalk_;
  std::shared_ptr<const QSSettledPass> settledPass_;
  std::atomic<bool> wantsBackup_{false};
  std::atomic<uint32_t> versionDepth_{0};
};
