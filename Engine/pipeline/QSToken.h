// The runnable that travels through the backup pipeline: who is called
// when the request is served, what it concerns (destination folder, backup
// identifier, version depth, whether files are really copied) and, once the
// first stage has counted the user's files, a private copy of the counted
// tree and tally.
//
// Invariant: a token wants a destination tally exactly when both the
// destination path and the uid are present.  Destination path, uid, tree,
// tally and context are read and written under the token's lock;
// `wantsBackup` and `versionDepth` are atomic, since a request that
// piggybacks on a running token changes them while stage threads read them.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "Engine/records/QSMutableTally.h"
#include "Engine/pipeline/QSRunnable.h"

class QSFSMutableNode;

class QSToken : public QSRunnable {
 public:
  explicit QSToken(Passkey passkey) : QSRunnable(passkey) {}

  template <class Delegate>
  static std::shared_ptr<QSToken> initWithDelegate_selector_context(Delegate* delegate, Selector<Delegate> selector,
                                                                    std::any context) {
    auto token = std::make_shared<QSToken>(Passkey());
    token->setDelegate_selector_context(delegate, selector, std::move(context));
    return token;
  }

  void setDestinationPath_uid(std::optional<std::string> destinationPath, std::optional<std::string> uid);
  std::optional<std::string> destinationPath() const;
  std::optional<std::string> uid() const;
  bool wantsDestinationTally() const;

  void setTree_tally(std::shared_ptr<QSFSMutableNode> tree, std::shared_ptr<QSMutableTally> tally);
  void getTree_tally(std::shared_ptr<QSFSMutableNode>* tree, std::shared_ptr<QSMutableTally>* tally) const;

  bool wantsBackup() const { return wantsBackup_.load(); }
  void setWantsBackup(bool wantsBackup) { wantsBackup_.store(wantsBackup); }
  uint32_t versionDepth() const { return versionDepth_.load(); }
  void setVersionDepth(uint32_t versionDepth) { versionDepth_.store(versionDepth); }

 private:
  std::optional<std::string> destinationPath_;
  std::optional<std::string> uid_;
  std::shared_ptr<QSFSMutableNode> tree_;
  std::shared_ptr<QSMutableTally> tally_;
  std::atomic<bool> wantsBackup_{false};
  std::atomic<uint32_t> versionDepth_{0};
};
