// What the desktop agent tells the user, decided from what it sees of the
// engine: each look at the user's backups (where their disks are mounted,
// how each last ended), the engine answering again, conversion news.
//
//  - The first look only sets the scene: nothing that was already so is
//    announced.
//  - A backup's disk appearing or going: "Disk mounted" / "Disk ejected".
//  - A backup's new outcome: "Finished backup" (files and bytes) when it
//    completed cleanly; "Backup failed" (how many files, the most frequent
//    reason), "Backup stopped" or "Backup cancelled" otherwise.  Counts are
//    not announced.
//  - The engine answering (at start and after it was away): "Awake".
//  - A conversion's state on a disk: "Converting backups" (its progress and end).
//
// Nothing is said more than once a minute about the same backup (or disk,
// for conversions): a notice that comes sooner waits, and only the newest
// waiting notice of that backup is shown when its minute is over (`tick`).
// Not thread-safe; the agent calls it from its one thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Engine/records/QSBackupOutcome.h"

namespace skerrowctl {

struct DesktopNotice {
  std::string name;     // "Finished backup", "Backup failed", "Disk mounted", ...: also the summary shown
  std::string body;
  bool failure = false;  // shown as urgent
  std::string about;     // the backup (or disk) it concerns; "" for the engine
};

// Shows notices on the desktop (see FreedesktopNotifier); tests record them.
class Notifier {
 public:
  virtual ~Notifier() = default;
  // Shows `notice`; answers false when it could not (the caller goes on).
  virtual bool notify(const DesktopNotice& notice) = 0;
};

class AgentWatch {
 public:
  static constexpr double kQuietSeconds = 60;

  struct BackupState {
    std::string uid;
    std::string volume;      // the disk's name
    std::string mountPoint;  // "" when the disk is not mounted
    std::optional<QSBackupOutcome> outcome;
  };

  explicit AgentWatch(Notifier& notifier) : notifier_(notifier) {}

  void engineAwake(double now);
  void observe(const std::vector<BackupState>& backups, double now);
  void conversionChanged(const std::string& state, const std::string& mountPath, double now);
  // Shows the waiting notices whose minute is over.
  void tick(double now);

 private:
  void say(DesktopNotice notice, double now);

  Notifier& notifier_;
  bool looked_ = false;
  std::map<std::string, BackupState> known_;
  std::map<std::string, double> lastSaid_;           // by `about`
  std::map<std::string, DesktopNotice> waiting_;     // by `about`
};

}  // namespace skerrowctl
