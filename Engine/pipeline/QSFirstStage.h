// The first stage of the pipeline: one user environment per eligible local
// account, keyed by short user name.
//
// Eligible are the superuser (uid 0) and the accounts with ids from 500 to
// 4294967194; system accounts (1-499) and the top of the 32-bit range (the
// "nobody" ids read as unsigned) are left out.  Each admitted account is
// logged, gets an environment and has its thread started.  The stage's
// lock guards the directory; the environments guard themselves.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "Engine/pipeline/QSToken.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "platform/UserDatabase.h"

class QSFirstStage : public QSBackupConversionChangedNotificationProtocol {
 public:
  // Reads every account of `accounts` (the system's password database when
  // none is given; it must outlive the stage) and admits the eligible ones.
  // Without `startThreads` the environments are made but their threads are
  // not started (tests drive their cycles by hand).
  explicit QSFirstStage(const platform::AccountDirectory* accounts = nullptr, bool startThreads = true);
  ~QSFirstStage() override;
  QSFirstStage(const QSFirstStage&) = delete;
  QSFirstStage& operator=(const QSFirstStage&) = delete;

  static bool isAdmissibleUID(uint32_t uid) { return uid == 0 || (uid >= 500 && uid <= 4294967194u); }

  // Admits one account by name (false for an empty or unknown name or an
  // ineligible account).  An existing environment of that name is replaced
  // and its thread ended.
  bool addNewUser(const std::optional<std::string>& name);
  bool managesUserName(const std::string& name) const;
  std::shared_ptr<QSUserEnvironment> environmentForUser(const std::string& name) const;
  bool enqueue_forUser(const std::shared_ptr<QSToken>& token, const std::string& name);
  bool setClient_forUser(std::shared_ptr<QSBackupClientProtocol> client, const std::string& name);
  void cancelPipeForUser(const std::string& name);
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override;
  std::vector<std::string> userNames() const;

  void lock() { lock_.lock(); }
  void unlock() { lock_.unlock(); }

  // Ends every environment's thread (engine teardown); answers whether all
  // ended within `timeout`.
  bool stopAll(std::chrono::milliseconds timeout);

  // The accounts users are admitted from.
  const platform::AccountDirectory& accounts() const { return accounts_; }

 private:
  bool admit(const platform::UserAccount& account);

  const platform::AccountDirectory& accounts_;
  const bool startThreads_;
  std::map<std::string, std::shared_ptr<QSUserEnvironment>> queueByName_;
  mutable std::recursive_mutex lock_;
};
