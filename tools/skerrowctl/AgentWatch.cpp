#include "tools/skerrowctl/AgentWatch.h"

#include "tools/skerrowctl/Wording.h"

namespace skerrowctl {

namespace {

std::string diskName(const AgentWatch::BackupState& b) { return b.volume.empty() ? "your backup disk" : b.volume; }

std::optional<DesktopNotice> noticeFor(const AgentWatch::BackupState& b) {
  const QSBackupOutcome& o = *b.outcome;
  if (o.kind != QSBackupOutcome::Kind::Backup) return std::nullopt;
  const std::string took = wordedDuration(o.ended.timeIntervalSinceDate(o.started));
  const std::string reason = o.commonFailure.empty() ? "" : ": " + o.commonFailure;
  DesktopNotice n;
  n.about = b.uid;
  switch (o.state) {
    case QSBackupOutcome::State::Completed:
      n.name = "Finished backup";
      n.body = countOf(o.filesCopied, "file", "files") + " (" + humanBytes(o.bytesCopied) + ") copied to " +
               diskName(b) + " in " + took;
      break;
    case QSBackupOutcome::State::CompletedWithFailures:
      n.name = "Backup failed";
      n.failure = true;
      n.body = countOf(o.failedFiles, "file", "files") + " could not be copied to " + diskName(b) + reason + " (" +
               grouped(o.filesCopied) + " of " + grouped(o.filesExpected) + " copied)";
      break;
    case QSBackupOutcome::State::Stopped:
      n.name = "Backup stopped";
      n.failure = true;
      n.body = "The backup to " + diskName(b) + " was stopped after too many failed copies in a row" + reason;
      break;
    case QSBackupOutcome::State::Cancelled:
      n.name = "Backup cancelled";
      n.body = "The backup to " + diskName(b) + " was cancelled after " + took;
      break;
  }
  return n;
}

}  // namespace

void AgentWatch::engineAwake(double now) {
  say({"Awake", "The backup engine is running and watching your backups", false, ""}, now);
}

void AgentWatch::observe(const std::vector<BackupState>& backups, double now) {
  std::map<std::string, BackupState> seen;
  for (const auto& b : backups) seen[b.uid] = b;
  if (looked_) {
    for (const auto& [uid, b] : seen) {
      const auto before = known_.find(uid);
      const bool wasMounted = before != known_.end() && !before->second.mountPoint.empty();
      if (!wasMounted && !b.mountPoint.empty())
        say({"Disk mounted", diskName(b) + " is mounted at " + b.mountPoint + "; your backups to it can run", false, uid},
            now);
      if (wasMounted && b.mountPoint.empty())
        say({"Disk ejected", diskName(before->second) + " was ejected; your backups to it wait until it is back",
             false, uid},
            now);
      const uint64_t sequence =
          before != known_.end() && before->second.outcome ? before->second.outcome->sequence : 0;
      if (b.outcome && b.outcome->sequence > sequence)
        if (auto notice = noticeFor(b)) say(std::move(*notice), now);
    }
    for (const auto& [uid, b] : known_)
      if (!seen.count(uid) && !b.mountPoint.empty())
        say({"Disk ejected", diskName(b) + " was ejected; your backups to it wait until it is back", false, uid}, now);
  }
  known_ = std::move(seen);
  looked_ = true;
}

void AgentWatch::conversionChanged(const std::string& state, const std::string& mountPath, double now) {
  say({"Converting backups", "Older backups on " + mountPath + ": " + state, false, "conversion:" + mountPath}, now);
}

void AgentWatch::say(DesktopNotice notice, double now) {
  const auto last = lastSaid_.find(notice.about);
  if (last != lastSaid_.end() && now - last->second < kQuietSeconds) {
    waiting_[notice.about] = std::move(notice);
    return;
  }
  waiting_.erase(notice.about);
  lastSaid_[notice.about] = now;
  notifier_.notify(notice);
}

void AgentWatch::tick(double now) {
  std::vector<DesktopNotice> due;
  for (auto it = waiting_.begin(); it != waiting_.end();) {
    if (now - lastSaid_[it->first] >= kQuietSeconds) {
      due.push_back(std::move(it->second));
      it = waiting_.erase(it);
    } else {
      ++it;
    }
  }
  for (auto& notice : due) say(std::move(notice), now);
}

}  // namespace skerrowctl
