// skerrowctl's commands about the backups themselves: list, manage, adopt,
// forget, pause, activate, set, filter, heartbeat.
#include <algorithm>
#include <set>
#include <sstream>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSVolumeFunctions.h"
#include "ipc/WireOutcome.h"
#include "platform/RegexPredicate.h"
#include "tools/skerrowctl/CommandsInternal.h"
#include "tools/skerrowctl/Wording.h"

namespace skerrowctl {

namespace {

bool completed(const platform::Date& date) { return date.timeIntervalSinceReferenceDate() > 0; }

std::string scheduledCategories(const QSBackupEntry& entry) {
  std::string text;
  for (const auto& category : entry.scheduledCategories()) text += (text.empty() ? "" : ",") + category;
  return text.empty() ? "-" : text;
}

bool parseOnOff(const std::string& text) {
  if (text == "on" || text == "yes" || text == "true") return true;
  if (text == "off" || text == "no" || text == "false") return false;
  fail("say on or off, not \"" + text + "\"", kExitUsage);
}

uint32_t depthForKeep(const std::string& text) {
  const uint64_t keep = parseWhole(text, "the number of versions to keep");
  if (keep < 1) fail("a backup keeps at least 1 version of each file", kExitUsage);
  if (keep - 1 > UINT32_MAX) fail("that is too many versions to keep", kExitUsage);
  return static_cast<uint32_t>(keep - 1);
}

uint32_t depthOf(const std::string& text) {
  const uint64_t depth = parseWhole(text, "the version depth");
  if (depth > UINT32_MAX) fail("the version depth is too large", kExitUsage);
  return static_cast<uint32_t>(depth);
}

Json outcomeJson(const QSBackupOutcome& o) {
  return Json::object()
      .set("kind", QSBackupOutcome::kindName(o.kind))
      .set("state", QSBackupOutcome::stateName(o.state))
      .set("started", isoDate(o.started))
      .set("ended", isoDate(o.ended))
      .set("filesCopied", o.filesCopied)
      .set("bytesCopied", o.bytesCopied)
      .set("filesExpected", o.filesExpected)
      .set("bytesExpected", o.bytesExpected)
      .set("failedFiles", o.failedFiles)
      .set("commonFailure", o.commonFailure.empty() ? Json() : Json(o.commonFailure))
      .set("commonFailureCount", o.commonFailureCount);
}

// How the last run went, in a dozen letters.
std::string lastRunWords(const std::optional<QSBackupOutcome>& o, const QSBackupEntry& entry) {
  if (!o) return completed(entry.completionDate()) ? "completed" : "never";
  const bool count = o->kind == QSBackupOutcome::Kind::Count;
  switch (o->state) {
    case QSBackupOutcome::State::Completed: return count ? "counted" : "completed";
    case QSBackupOutcome::State::CompletedWithFailures: return grouped(o->failedFiles) + " failed";
    case QSBackupOutcome::State::Cancelled: return count ? "count cancelled" : "cancelled";
    case QSBackupOutcome::State::Stopped: return "stopped";
  }
  return "?";
}

// The outcomes the engine answers for a backup: the last run, then the last
// clean backup when it is an earlier run.
struct Runs {
  std::optional<QSBackupOutcome> last;
  std::optional<QSBackupOutcome> lastClean;
};
Runs runsOf(Context& c, const std::string& uid) {
  Runs runs;
  for (const auto& record : c.service().outcomeForBackup(uid)) {
    const QSBackupOutcome o = wire::fromWireOutcome(record);
    if (!runs.last) runs.last = o;
    if (o.kind == QSBackupOutcome::Kind::Backup && o.state == QSBackupOutcome::State::Completed && !runs.lastClean)
      runs.lastClean = o;
  }
  return runs;
}

// The date of the last good backup: the end of the last clean run the
// engine recorded.  A backup the engine recorded no run of (one it made
// before it kept outcomes) shows its completion date.
std::optional<platform::Date> lastGood(const Runs& runs, const QSBackupEntry& entry) {
  if (runs.lastClean) return runs.lastClean->ended;
  if (!runs.last && completed(entry.completionDate())) return entry.completionDate();
  return std::nullopt;
}

std::string cut(const std::string& text, size_t width) {
  return text.size() <= width ? text : text.substr(0, width - 1) + "~";
}

}  // namespace

void printTable(std::ostream& out, const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows)
    for (size_t i = 0; i < row.size(); ++i) {
      if (widths.size() <= i) widths.push_back(0);
      widths[i] = std::max(widths[i], row[i].size());
    }
  for (const auto& row : rows) {
    std::string text;
    for (size_t i = 0; i < row.size(); ++i)
      text += i + 1 == row.size() ? row[i] : row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    out << text << "\n";
  }
}

Json entryJson(const QSBackupEntry& entry) {
  Json categories = Json::array();
  for (const auto& category : entry.scheduledCategories()) categories.push(category);
  return Json::object()
      .set("uid", entry.uid())
      .set("volume", entry.volumeName())
      .set("bsdName", entry.BSDName())
      .set("mountPoint", entry.mountPoint())
      .set("scheduled", entry.isScheduled())
      .set("persistent", entry.isPersistent())
      .set("period", entry.period())
      .set("schedule", scheduleWords(entry.isScheduled(), entry.period()))
      .set("versionDepth", entry.versionDepth())
      .set("keeps", static_cast<uint64_t>(entry.versionDepth()) + 1)
      .set("categories", categories)
      .set("lastCompletion", completed(entry.completionDate()) ? Json(isoDate(entry.completionDate())) : Json())
      .set("mounted", !entry.mountPoint().empty());
}

uint64_t parseWhole(const std::string& text, const std::string& what) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 19)
    fail(what + " must be a whole number, not \"" + text + "\"", kExitUsage);
  return std::stoull(text);
}

std::string shortUID(const std::string& uid, const std::vector<std::string>& uids) {
  size_t length = 8;
  for (const auto& other : uids) {
    if (other == uid) continue;
    size_t common = 0;
    while (common < uid.size() && common < other.size() && uid[common] == other[common]) ++common;
    length = std::max(length, common + 1);
  }
  return uid.substr(0, std::min(length, uid.size()));
}

int listCommand(Context& c) {
  const Entries entries = c.backups();
  std::vector<std::string> uids;
  for (const auto& [uid, entry] : entries) uids.push_back(uid);
  if (c.line.json) {
    Json all = Json::array();
    for (const auto& [uid, entry] : entries) {
      const Runs runs = runsOf(c, uid);
      const auto good = lastGood(runs, *entry);
      all.push(entryJson(*entry)
                   .set("lastRun", runs.last ? outcomeJson(*runs.last) : Json())
                   .set("lastGoodBackup", good ? Json(isoDate(*good)) : Json()));
    }
    c.out << all.dump() << "\n";
    return kExitOK;
  }
  if (entries.empty()) {
    c.out << "You have no backups on mounted disks. Start one with: skerrowctl manage DISK\n";
    return kExitOK;
  }
  std::vector<std::vector<std::string>> rows{{"BACKUP", "DISK", "SCHEDULE", "KEEPS", "LAST GOOD BACKUP", "LAST RUN"}};
  bool unmounted = false;
  for (const auto& [uid, entry] : entries) {
    const Runs runs = runsOf(c, uid);
    const auto good = lastGood(runs, *entry);
    std::string disk = cut(entry->volumeName().empty() ? entry->BSDName() : entry->volumeName(), 10);
    if (entry->mountPoint().empty()) {
      disk = "(" + cut(disk, 8) + ")";
      unmounted = true;
    }
    std::string keeps = keepsWords(entry->versionDepth()).substr(6);
    rows.push_back({shortUID(uid, uids), disk, cut(scheduleWords(entry->isScheduled(), entry->period()), 15),
                    cut(keeps, 13), good ? localDate(*good) : "none yet", lastRunWords(runs.last, *entry)});
  }
  printTable(c.out, rows);
  if (unmounted) c.out << "(DISK): the disk is not mounted\n";
  return kExitOK;
}

int manageCommand(Context& c) {
  std::string disk = c.line.arguments[0];
  if (c.line.value("--depth") && c.line.value("--keep")) fail("say --depth N or --keep N, not both", kExitUsage);
  if (disk.find('/') != std::string::npos) {
    // A mount point is found by name first: the user may not be allowed to look inside its parent folder.
    std::string mountPoint = disk;
    while (mountPoint.size() > 1 && mountPoint.back() == '/') mountPoint.pop_back();
    std::shared_ptr<QSVolumeInfo> volume;
    for (const auto& [bsdName, candidate] : QSVolumeInfoForLocalVolumes())
      if (candidate->mountPoint() == mountPoint) volume = candidate;
    if (!volume) volume = QSVolumeInfoForPath(disk);
    if (!volume || volume->bsdName().empty()) fail("no local disk is mounted at " + disk);
    disk = volume->bsdName();
  }
  // Checked before anything is made on the disk.
  std::optional<uint32_t> depth;
  if (const auto text = c.line.value("--depth")) depth = depthOf(*text);
  if (const auto text = c.line.value("--keep")) depth = depthForKeep(*text);
  std::optional<double> period;
  if (const auto text = c.line.value("--period")) period = static_cast<double>(parseWhole(*text, "--period"));
  std::set<std::string> categories(kAllCategories.begin(), kAllCategories.end());
  if (const auto chosen = c.line.value("--categories")) {
    categories.clear();
    std::stringstream list(*chosen);
    for (std::string category; std::getline(list, category, ',');) {
      if (std::find(kAllCategories.begin(), kAllCategories.end(), category) == kAllCategories.end())
        fail("no category \"" + category + "\"; the categories are Pictures, Music, Movies, Mail, Documents, Other",
             kExitUsage);
      categories.insert(category);
    }
  }
  const auto [uid, didSucceed] = c.service().startManagingVolumeWithBSDName_didSucceed(disk);
  if (!didSucceed) fail("the engine could not start a backup on " + disk + " (is it mounted and writable?)");
  // A new backup has every category unscheduled: back up the whole home folder unless told otherwise.
  for (const auto& category : categories) c.service().setScheduled_forBackup_forCategory(true, uid, category);
  if (depth) c.service().setVersionDepth_forBackup(*depth, uid);
  if (period) {
    // A period asked for is a schedule asked for.
    c.service().setPeriod_forBackup(*period, uid);
    c.service().setScheduled_forBackup(true, uid);
  }
  const auto entry = c.backup(uid);
  std::string told = "New backup " + uid + " on " + disk + " (" + entry->mountPoint() + "), " +
                     keepsWords(entry->versionDepth()) + " of each file";
  // Continuous backup, like the schedule, serves scheduled backups only: say
  // so, or a person edits a file and wonders why no copy appears.
  if (!entry->isScheduled())
    told += "\nNot scheduled: \"skerrowctl backup\" backs it up now; \"skerrowctl set " + uid.substr(0, 8) +
            " scheduled on\" backs it up on a schedule and copies each changed file as it is saved";
  c.report(told, entryJson(*entry));
  return kExitOK;
}

int adoptCommand(Context& c) {
  const std::string uid = c.uidOf(c.line.arguments[0]);
  c.service().takeOverGuestBackup(uid);
  const auto entry = c.backup(uid);
  if (!entry->isPersistent()) fail("the backup " + uid + " could not be adopted");
  c.report("The backup " + uid + " is now yours", entryJson(*entry));
  return kExitOK;
}

int forgetCommand(Context& c) {
  const std::string uid = c.uidOf(c.line.arguments[0]);
  if (!c.service().stopManagingBackup(uid)) fail("the engine could not save its database");
  c.report("The engine no longer manages " + uid + "; its files stay on the disk",
           Json::object().set("uid", uid).set("managed", false));
  return kExitOK;
}

int pauseCommand(Context& c) {
  c.service().pause();
  c.service().heartbeat();  // a round trip: the one-way request has been served
  c.report("Your backups are paused until: skerrowctl activate", Json::object().set("paused", true));
  return kExitOK;
}

int activateCommand(Context& c) {
  const bool now = c.line.has("--now");
  if (!c.line.arguments.empty()) {
    const std::string uid = c.uidOf(c.line.arguments[0]);
    if (now)
      c.service().activateAndBackupImmediatelyForUID(uid);
    else
      c.service().activate();
  } else if (now) {
    c.service().activateAndBackupImmediately();
  } else {
    c.service().activate();
  }
  c.service().heartbeat();
  c.report(now ? "Your backups are scheduled and started" : "Your backups are scheduled again",
           Json::object().set("activated", true).set("started", now));
  return kExitOK;
}

int setCommand(Context& c) {
  const auto& a = c.line.arguments;
  const auto entry = c.backup(a[0]);
  const std::string uid = entry->uid();
  const std::string& what = a[1];
  if (what == "period" && a.size() == 3) {
    c.service().setPeriod_forBackup(static_cast<double>(parseWhole(a[2], "the period")), uid);
  } else if (what == "depth" && a.size() == 3) {
    c.service().setVersionDepth_forBackup(depthOf(a[2]), uid);
  } else if (what == "keep" && a.size() == 3) {
    c.service().setVersionDepth_forBackup(depthForKeep(a[2]), uid);
  } else if (what == "scheduled" && a.size() == 3) {
    c.service().setScheduled_forBackup(parseOnOff(a[2]), uid);
  } else if (what == "category" && a.size() == 4) {
    if (!entry->categoryWithIdentifier(a[2])) {
      std::string known;
      for (const char* category : kAllCategories) known += std::string(known.empty() ? "" : ", ") + category;
      fail("no category \"" + a[2] + "\"; the categories are " + known, kExitUsage);
    }
    c.service().setScheduled_forBackup_forCategory(parseOnOff(a[3]), uid, a[2]);
  } else {
    fail("say: set UID period SECONDS | keep N | depth N | scheduled on|off | category NAME on|off", kExitUsage);
  }
  const auto changed = c.backup(uid);
  c.report(uid.substr(0, 8) + ": " + scheduleWords(changed->isScheduled(), changed->period()) + ", " +
               keepsWords(changed->versionDepth()) + ", categories " + scheduledCategories(*changed),
           entryJson(*changed));
  return kExitOK;
}

int filterCommand(Context& c) {
  if (c.line.has("--clear")) {
    c.service().setPathSuffixExclusionFilter({});
  } else if (!c.line.arguments.empty()) {
    std::string why;
    if (!platform::RegexPredicate::isValidExpression(c.line.arguments[0], &why))
      fail("not a regular expression: " + why, kExitUsage);
    c.service().setPathSuffixExclusionFilter({c.line.arguments[0]});
  }
  const auto current = c.service().pathSuffixExclusionFilter();
  c.report(current.empty() ? "No exclusion filter" : "Exclusion filter: " + current.front(),
           Json::object().set("filter", current.empty() ? Json() : Json(current.front())));
  return kExitOK;
}

int heartbeatCommand(Context& c) {
  const auto beat = c.service().heartbeat();
  const platform::Date date(std::get<0>(beat));
  c.report("The engine answers; its clock says " + localDate(date),
           Json::object().set("time", std::get<0>(beat)).set("date", isoDate(date, true)));
  return kExitOK;
}

}  // namespace skerrowctl
