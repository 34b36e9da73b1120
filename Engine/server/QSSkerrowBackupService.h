// The per-client façade of the engine: through it one user manages his
// backups (creating one on a disk, adopting one found on a disk, stopping,
// pausing and resuming, categories, period, version depth, backups and
// counts) and reads the database restricted to his own entries.
//
// The service's user is fixed when it is made: the client is asked once for
// its short name, long name and home folder.  Every call that names a backup
// looks it up by uid; a backup that does not exist, or that belongs to
// another user, is treated alike: a query answers 0, NO or nothing and a
// change does nothing (the database is not saved).  Cancelling is the one
// exception: any client may cancel any backup's running pipe.
//
// Calls come from the main loop; the service takes no locks of its own and
// relies on the server's database operations.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSBackupOutcome.h"
#include "Engine/server/TestObject.h"
#include "platform/Value.h"

class QSSkerrowServer;

class QSSkerrowBackupService {
 public:
  using Client = std::shared_ptr<QSBackupClientProtocol>;

  // Keeps the client and asks it for its user's names and home (a client
  // that fails to answer raises the platform exception to the caller).
  static std::shared_ptr<QSSkerrowBackupService> initWithServer_client(std::shared_ptr<QSSkerrowServer> server,
                                                                       Client client);
  QSSkerrowBackupService(std::shared_ptr<QSSkerrowServer> server, Client client, std::string shortUserName,
                         std::string longUserName, std::string userHome);

  const Client& client() const { return client_; }
  const std::string& shortUserName() const { return shortUserName_; }
  const std::string& longUserName() const { return longUserName_; }
  const std::string& userHome() const { return userHome_; }

  uint32_t versionDepthForBackup(const std::string& uid) const;
  void setVersionDepth_forBackup(uint32_t depth, const std::string& uid);
  bool isScheduled(const std::string& uid) const;
  void setScheduled_forBackup(bool scheduled, const std::string& uid);
  double periodForBackup(const std::string& uid) const;
  void setPeriod_forBackup(double period, const std::string& uid);
  // Sets the flag of every category of the backup with that identifier and
  // saves the database, also when no category matched.
  void setScheduled_forBackup_forCategory(bool scheduled, const std::string& uid, const std::string& category);
  std::optional<platform::Dictionary> userInfoForBackup_forCategory(const std::string& uid,
                                                                   const std::string& category) const;
  // Sets the category's user info and saves; nothing for an unknown category.
  void setUserInfo_forBackup_forCategory(const platform::Dictionary& userInfo, const std::string& uid,
                                         const std::string& category);

  // The user's path-suffix exclusion filter.
  std::optional<std::string> pathSuffixExclusionFilter() const;
  void setPathSuffixExclusionFilter(const std::optional<std::string>& expression);

  // Re-plan this user's backups, without starting them (activate) or starting them at once.
  void activate();
  void activateAndBackupImmediately();
  void activateAndBackupImmediatelyForUID(const std::string& uid);
  // Cancels and unschedules every job of this user.
  void pause();
  void startBackup(const std::string& uid);
  void startTally(const std::string& uid);
  void cancelBackup(const std::string& uid);

  // Makes a backup of this user found on a disk (not persistent) his own:
  // persistent, saved, its environment made.  Anything else does nothing.
  void takeOverGuestBackup(const std::string& uid);
  // Removes the backup from the database, saves, ends its environment; the
  // backup folder stays on the disk.  Answers whether the save worked.
  bool stopManagingBackup(const std::string& uid);
  // A new backup of this user on the mounted volume `bsdName`: storage and
  // backup folders, the metadata file (atomically), the entry in the
  // database.  Answers the new uid, also when a step failed; `didSucceed`
  // says whether all went well.  Nothing is stored unless the metadata file
  // was written.
  std::string startManagingVolumeWithBSDName_didSucceed(const std::string& bsdName, bool* didSucceed);
  std::string startManagingVolumeWithBSDName(const std::string& bsdName);
  // Why a user other than root may not put a backup on that volume, or
  // nothing: a backup on the disk that holds the system ("/") or the user's
  // own home folder is lost with the very disk it should protect.
  std::optional<std::string> refusalToManageVolumeWithBSDName(const std::string& bsdName) const;

  // The database's entries of this user, by uid.
  std::map<std::string, std::shared_ptr<QSBackupEntry>> database() const;
  std::shared_ptr<TestObject> heartbeat() const;
  // How this user's backup `uid` last ended (a backup or a count), or
  // nothing for an unknown uid, another user's backup, or one never run.
  std::optional<QSBackupOutcome> outcomeForBackup(const std::string& uid) const;
  // The last run of this user's backup `uid` that was a backup completed
  // without a failed copy, or nothing (as above).
  std::optional<QSBackupOutcome> lastCleanBackup(const std::string& uid) const;

 private:
  // The backup `uid` when it exists and belongs to this user.
  std::shared_ptr<QSBackupEntry> ownEntry(const std::string& uid) const;
  bool createManagedBackup(const std::string& uid, const std::string& bsdName);

  const std::shared_ptr<QSSkerrowServer> server_;
  const Client client_;
  const std::string shortUserName_;
  const std::string longUserName_;
  const std::string userHome_;
};
