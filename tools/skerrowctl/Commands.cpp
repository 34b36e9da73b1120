#include "tools/skerrowctl/Commands.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <thread>

#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSVolumeFunctions.h"
#include "client/QSClientSession.h"
#include "ipc/WireCoding.h"
#include "platform/Date.h"
#include "platform/RegexPredicate.h"
#include "platform/Version.h"
#include "tools/skerrowctl/BackupFollower.h"
#include "tools/skerrowctl/Json.h"
#include "tools/skerrowctl/VersionBrowser.h"

namespace skerrowctl {

namespace {

constexpr int kOK = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kUnreachable = 3;
constexpr int kInterrupted = 130;
// How long a followed backup may stay silent before skerrowctl gives up on it.
constexpr std::chrono::seconds kIdleLimit{300};

volatile int gInterrupted = 0;
extern "C" void onInterrupt(int) { gInterrupted = 1; }

using Entries = std::map<std::string, std::shared_ptr<QSBackupEntry>>;

// A refusal or failure to report to the user, with its exit status.
struct Failure {
  int status;
  std::string message;
};
[[noreturn]] void fail(const std::string& message, int status = kFailed) { throw Failure{status, message}; }

// Hands the engine's callbacks to whoever follows them now (nobody at first).
struct CallbackRelay : QSClientCallbacks {
  QSClientCallbacks* target = nullptr;
  void tallyCallback(const std::string& member, const QSTallyReference& tally,
                     const std::optional<std::string>& uid) override {
    if (target) target->tallyCallback(member, tally, uid);
  }
  void realtimeTransferStarted(const std::string& source, const std::string& destination) override {
    if (target) target->realtimeTransferStarted(source, destination);
  }
  void realtimeTransferFinished(const std::string& source, const std::string& destination, bool result) override {
    if (target) target->realtimeTransferFinished(source, destination, result);
  }
  void copyError(const wire::ErrorWire& error) override {
    if (target) target->copyError(error);
  }
  void stoppedDueToErrors(const std::string& uid) override {
    if (target) target->stoppedDueToErrors(uid);
  }
  void conversionChanged(const std::string& state, const std::string& mountPath) override {
    if (target) target->conversionChanged(state, mountPath);
  }
};

struct Context {
  const CommandLine& line;
  std::ostream& out;
  std::ostream& err;
  CallbackRelay relay;
  std::unique_ptr<QSClientSession> session;

  // The session; `callbacks`, when given, receives the engine's callbacks from now on.
  QSClientSession& connect(QSClientCallbacks* callbacks = nullptr) {
    if (callbacks) relay.target = callbacks;
    if (!session) {
      QSClientIdentity identity = QSClientIdentity::currentUser();
      if (line.user) identity.shortUserName = *line.user;
      if (identity.shortUserName.empty()) fail("the user running skerrowctl has no account name", kUsage);
      identity.maximumContiguousErrors = line.maximumErrors;
      session = std::make_unique<QSClientSession>(
          line.sessionBus ? QSClientSession::Bus::Session : QSClientSession::Bus::System, identity, relay);
    }
    return *session;
  }
  QSServiceProxy& service() { return connect().service(); }

  Entries backups() {
    Entries entries;
    for (const auto& [uid, record] : service().database()) entries[uid] = wire::fromWire<QSBackupEntry>(record);
    return entries;
  }
  std::shared_ptr<QSBackupEntry> backup(const std::string& uid) {
    auto entries = backups();
    const auto it = entries.find(uid);
    if (it == entries.end()) fail("you have no backup " + uid + " on a mounted disk (see: skerrowctl list)");
    return it->second;
  }
  // The backup a file command reads: the one named with --backup, or the only one.
  std::shared_ptr<QSBackupEntry> chosenBackup() {
    if (const auto uid = line.value("--backup")) return backup(*uid);
    auto entries = backups();
    if (entries.empty()) fail("you have no backup on a mounted disk");
    if (entries.size() > 1) fail("you have several backups on mounted disks; choose one with --backup UID");
    return entries.begin()->second;
  }
  // Prints `text` to people, or `json` to programs.
  void report(const std::string& text, const Json& json) {
    if (line.json)
      out << json.dump() << "\n";
    else
      out << text << "\n";
  }
};

std::string dateText(double secondsSinceReferenceDate) {
  if (secondsSinceReferenceDate <= 0) return "never";
  const time_t t = static_cast<time_t>(platform::Date(secondsSinceReferenceDate).timeIntervalSince1970());
  struct tm local {};
  localtime_r(&t, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::string fileTimeText(const platform::FileTime& time) { return dateText(time.sinceReferenceDate()); }

std::string scheduledCategories(const QSBackupEntry& entry) {
  std::string text;
  for (const auto& category : entry.scheduledCategories()) text += (text.empty() ? "" : ",") + category;
  return text.empty() ? "-" : text;
}

uint64_t parseWhole(const std::string& text, const std::string& what) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 19)
    fail(what + " must be a whole number, not \"" + text + "\"", kUsage);
  return std::stoull(text);
}

bool parseOnOff(const std::string& text) {
  if (text == "on" || text == "yes" || text == "true") return true;
  if (text == "off" || text == "no" || text == "false") return false;
  fail("say on or off, not \"" + text + "\"", kUsage);
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
      .set("versionDepth", entry.versionDepth())
      .set("categories", categories)
      .set("lastCompletion", entry.completionDate().timeIntervalSinceReferenceDate() > 0
                                 ? Json(entry.completionDate().timeIntervalSince1970())
                                 : Json())
      .set("mounted", !entry.mountPoint().empty());
}

// Pads each column to its widest cell.
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

// The four views of a tally, per category and in total.
void printTally(Context& c, const std::string& uid, const wire::TallyWire& tally) {
  const wire::TallyViewWire* views[] = {&std::get<0>(tally), &std::get<1>(tally), &std::get<2>(tally),
                                        &std::get<3>(tally)};
  const char* names[] = {"source", "destination", "transferred", "expected"};
  if (c.line.json) {
    Json json = Json::object().set("uid", uid);
    for (size_t v = 0; v < 4; ++v) {
      Json view = Json::object();
      for (const auto& [category, counters] : *views[v])
        view.set(category, Json::object()
                               .set("files", counters.empty() ? 0 : std::get<0>(counters[0]))
                               .set("bytes", counters.size() < 2 ? 0 : std::get<0>(counters[1])));
      json.set(names[v], view);
    }
    c.out << Json::object().set("event", "tally").set("tally", json).dump() << "\n";
    return;
  }
  std::vector<std::vector<std::string>> rows{{"CATEGORY", "SOURCE", "IN BACKUP", "COPIED", "TO COPY"}};
  auto cell = [](const std::vector<wire::CounterWire>& counters) {
    if (counters.size() < 2) return std::string("-");
    return std::to_string(std::get<0>(counters[0])) + " / " + humanBytes(std::get<0>(counters[1]));
  };
  std::set<std::string> categories;
  for (const auto* view : views)
    for (const auto& [category, counters] : *view) categories.insert(category);
  for (const auto& category : categories) {
    std::vector<std::string> row{category};
    for (const auto* view : views) {
      const auto it = view->find(category);
      row.push_back(it == view->end() ? "-" : cell(it->second));
    }
    rows.push_back(row);
  }
  std::vector<std::string> total{"total"};
  for (const auto* view : views) {
    const TallyTotals t = totalsOf(*view);
    total.push_back(std::to_string(t.files) + " / " + humanBytes(t.bytes));
  }
  rows.push_back(total);
  c.out << "Backup " << uid << " (files / bytes):\n";
  printTable(c.out, rows);
}

int list(Context& c) {
  const Entries entries = c.backups();
  if (c.line.json) {
    Json all = Json::array();
    for (const auto& [uid, entry] : entries) all.push(entryJson(*entry));
    c.out << all.dump() << "\n";
    return kOK;
  }
  if (entries.empty()) {
    c.out << "You have no backups on mounted disks. Start one with: skerrowctl manage DISK\n";
    return kOK;
  }
  std::vector<std::vector<std::string>> rows{
      {"UID", "VOLUME", "SCHEDULED", "PERIOD", "DEPTH", "CATEGORIES", "LAST BACKUP", "MOUNTED"}};
  for (const auto& [uid, entry] : entries) {
    std::ostringstream period;
    period << entry->period() << "s";
    rows.push_back({uid, entry->volumeName().empty() ? entry->BSDName() : entry->volumeName(),
                    entry->isScheduled() ? "yes" : "no", period.str(), std::to_string(entry->versionDepth()),
                    scheduledCategories(*entry), dateText(entry->completionDate().timeIntervalSinceReferenceDate()),
                    entry->mountPoint().empty() ? "no" : entry->mountPoint()});
  }
  printTable(c.out, rows);
  return kOK;
}

int manage(Context& c) {
  std::string disk = c.line.arguments[0];
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
  const auto [uid, didSucceed] = c.service().startManagingVolumeWithBSDName_didSucceed(disk);
  if (!didSucceed) fail("the engine could not start a backup on " + disk + " (is it mounted and writable?)");
  // A new backup has every category unscheduled: back up the whole home folder unless told otherwise.
  std::set<std::string> categories(kAllCategories.begin(), kAllCategories.end());
  if (const auto chosen = c.line.value("--categories")) {
    categories.clear();
    std::stringstream list(*chosen);
    for (std::string category; std::getline(list, category, ',');) {
      if (std::find(kAllCategories.begin(), kAllCategories.end(), category) == kAllCategories.end())
        fail("no category \"" + category + "\"; the categories are Pictures, Music, Movies, Mail, Documents, Other",
             kUsage);
      categories.insert(category);
    }
  }
  for (const auto& category : categories) c.service().setScheduled_forBackup_forCategory(true, uid, category);
  if (const auto depth = c.line.value("--depth"))
    c.service().setVersionDepth_forBackup(static_cast<uint32_t>(parseWhole(*depth, "--depth")), uid);
  if (const auto period = c.line.value("--period"))
    c.service().setPeriod_forBackup(static_cast<double>(parseWhole(*period, "--period")), uid);
  const auto entry = c.backup(uid);
  c.report("New backup " + uid + " on " + disk + " (" + entry->mountPoint() + ")", entryJson(*entry));
  return kOK;
}

int adopt(Context& c) {
  const std::string& uid = c.line.arguments[0];
  c.service().takeOverGuestBackup(uid);
  const auto entry = c.backup(uid);
  if (!entry->isPersistent()) fail("the backup " + uid + " could not be adopted");
  c.report("The backup " + uid + " is now yours", entryJson(*entry));
  return kOK;
}

int forget(Context& c) {
  const std::string& uid = c.line.arguments[0];
  c.backup(uid);
  if (!c.service().stopManagingBackup(uid)) fail("the engine could not save its database");
  c.report("The engine no longer manages " + uid + "; its files stay on the disk",
           Json::object().set("uid", uid).set("managed", false));
  return kOK;
}

int pause(Context& c) {
  c.service().pause();
  c.service().heartbeat();  // a round trip: the one-way request has been served
  c.report("Your backups are paused until: skerrowctl activate", Json::object().set("paused", true));
  return kOK;
}

int activate(Context& c) {
  const bool now = c.line.has("--now");
  if (!c.line.arguments.empty()) {
    c.backup(c.line.arguments[0]);
    if (now)
      c.service().activateAndBackupImmediatelyForUID(c.line.arguments[0]);
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
  return kOK;
}

// Starts a backup or a count of each of `uids` and follows it to its end.
int follow(Context& c, const std::set<std::string>& uids, bool countOnly) {
  BackupFollower follower(uids, countOnly, c.line.json, c.out, c.err);
  QSClientSession& session = c.connect(&follower);
  follower.setSession(&session);
  std::map<std::string, double> before;
  const Entries entries = c.backups();
  for (const auto& uid : uids) {
    const auto it = entries.find(uid);
    if (it == entries.end()) fail("you have no backup " + uid + " on a mounted disk (see: skerrowctl list)");
    before[uid] = it->second->completionDate().timeIntervalSinceReferenceDate();
    if (!countOnly && it->second->scheduledCategories().empty())
      fail("the backup " + uid + " has no category to back up; choose some with: skerrowctl set " + uid +
           " category NAME on");
  }
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  for (const auto& uid : uids) countOnly ? session.service().startTally(uid) : session.service().startBackup(uid);
  if (c.line.has("--no-follow")) {
    c.report(countOnly ? "Count started" : "Backup started", Json::object().set("started", true));
    return kOK;
  }
  const bool ended = follower.waitUntilDone(kIdleLimit, &gInterrupted);
  if (gInterrupted) {
    for (const auto& uid : uids) session.service().cancelBackup(uid);
    session.service().heartbeat();
    c.err << "Interrupted: the backup was cancelled\n";
    return kInterrupted;
  }
  int status = ended ? kOK : kFailed;
  if (!ended) c.err << "skerrowctl: the engine stopped reporting progress\n";
  // A finished backup is one whose completion the engine recorded; a
  // cancelled one ends its transfer without that.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (const auto& [uid, followed] : follower.results()) {
    bool completed = countOnly && followed.outcome == BackupFollower::Outcome::Finished;
    while (!countOnly && followed.outcome == BackupFollower::Outcome::Finished && !completed) {
      completed = c.backup(uid)->completionDate().timeIntervalSinceReferenceDate() > before[uid];
      if (completed || std::chrono::steady_clock::now() > deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (followed.tally) printTally(c, uid, *followed.tally);
    if (!completed) status = kFailed;
    const std::string what = countOnly ? "Count" : "Backup";
    if (c.line.json)
      c.out << Json::object()
                   .set("event", "end")
                   .set("uid", uid)
                   .set("completed", completed)
                   .set("errors", followed.errors)
                   .dump()
            << "\n";
    else
      c.out << what << " " << uid << (completed ? " completed" : " did not complete") << " with " << followed.errors
            << " error(s)\n";
  }
  return status;
}

int backupNow(Context& c) {
  std::set<std::string> uids;
  if (!c.line.arguments.empty()) {
    uids.insert(c.line.arguments[0]);
  } else {
    for (const auto& [uid, entry] : c.backups()) uids.insert(uid);
    if (uids.empty()) fail("you have no backup on a mounted disk");
  }
  return follow(c, uids, false);
}

int count(Context& c) { return follow(c, {c.line.arguments[0]}, true); }

int cancel(Context& c) {
  c.service().cancelBackup(c.line.arguments[0]);
  c.service().heartbeat();
  c.report("Cancelled what ran for " + c.line.arguments[0], Json::object().set("cancelled", c.line.arguments[0]));
  return kOK;
}

int set(Context& c) {
  const auto& a = c.line.arguments;
  const std::string& uid = a[0];
  const auto entry = c.backup(uid);
  const std::string& what = a[1];
  if (what == "period" && a.size() == 3) {
    c.service().setPeriod_forBackup(static_cast<double>(parseWhole(a[2], "the period")), uid);
  } else if (what == "depth" && a.size() == 3) {
    const uint64_t depth = parseWhole(a[2], "the version depth");
    if (depth > UINT32_MAX) fail("the version depth is too large", kUsage);
    c.service().setVersionDepth_forBackup(static_cast<uint32_t>(depth), uid);
  } else if (what == "scheduled" && a.size() == 3) {
    c.service().setScheduled_forBackup(parseOnOff(a[2]), uid);
  } else if (what == "category" && a.size() == 4) {
    if (!entry->categoryWithIdentifier(a[2])) {
      std::string known;
      for (const char* category : kAllCategories) known += std::string(known.empty() ? "" : ", ") + category;
      fail("no category \"" + a[2] + "\"; the categories are " + known, kUsage);
    }
    c.service().setScheduled_forBackup_forCategory(parseOnOff(a[3]), uid, a[2]);
  } else {
    fail("say: set UID period SECONDS | depth N | scheduled on|off | category NAME on|off", kUsage);
  }
  const auto changed = c.backup(uid);
  c.report("period " + std::to_string(changed->period()) + "s, depth " + std::to_string(changed->versionDepth()) +
               ", scheduled " + (changed->isScheduled() ? "yes" : "no") + ", categories " +
               scheduledCategories(*changed),
           entryJson(*changed));
  return kOK;
}

int filter(Context& c) {
  if (c.line.has("--clear")) {
    c.service().setPathSuffixExclusionFilter({});
  } else if (!c.line.arguments.empty()) {
    std::string why;
    if (!platform::RegexPredicate::isValidExpression(c.line.arguments[0], &why))
      fail("not a regular expression: " + why, kUsage);
    c.service().setPathSuffixExclusionFilter({c.line.arguments[0]});
  }
  const auto current = c.service().pathSuffixExclusionFilter();
  c.report(current.empty() ? "No exclusion filter" : "Exclusion filter: " + current.front(),
           Json::object().set("filter", current.empty() ? Json() : Json(current.front())));
  return kOK;
}

int heartbeat(Context& c) {
  const auto beat = c.service().heartbeat();
  c.report("The engine's clock: " + dateText(std::get<0>(beat)),
           Json::object().set("time", std::get<0>(beat)).set("date", std::get<1>(beat)));
  return kOK;
}

int conversion(Context& c) {
  const auto state = c.connect().server().conversionStateForMountPath(c.line.arguments[0]);
  c.report(state.empty() ? "No conversion runs on " + c.line.arguments[0] : "Conversion: " + state.front(),
           Json::object().set("mountPath", c.line.arguments[0]).set("state", state.empty() ? Json() : Json(state.front())));
  return kOK;
}

VersionBrowser browserFor(Context& c) {
  const auto entry = c.chosenBackup();
  return VersionBrowser(VersionBrowser::backupFolderPath(entry->mountPoint(), entry->uid()), entry->userHome());
}

int versions(Context& c) {
  const VersionBrowser browser = browserFor(c);
  VersionError error;
  const auto found = browser.versions(c.line.arguments[0], &error);
  if (!error.empty()) fail(error.message, error.kind == VersionErrorKind::InvalidPath ? kUsage : kFailed);
  if (c.line.json) {
    Json all = Json::array();
    for (const auto& v : found)
      all.push(Json::object()
                   .set("version", v.index)
                   .set("size", v.size)
                   .set("modified", static_cast<double>(v.modificationTime.seconds) +
                                        static_cast<double>(v.modificationTime.nanoseconds) * 1e-9)
                   .set("created", v.creationTime ? Json(static_cast<double>(v.creationTime->seconds)) : Json())
                   .set("path", v.path));
    c.out << all.dump() << "\n";
    return kOK;
  }
  std::vector<std::vector<std::string>> rows{{"VERSION", "SIZE", "MODIFIED", "CREATED", "STORED AS"}};
  for (const auto& v : found)
    rows.push_back({std::to_string(v.index), std::to_string(v.size), fileTimeText(v.modificationTime),
                    v.creationTime ? fileTimeText(*v.creationTime) : "-", v.path});
  printTable(c.out, rows);
  return kOK;
}

int restore(Context& c) {
  const VersionBrowser browser = browserFor(c);
  RestoreOptions options;
  if (const auto version = c.line.value("--version")) options.version = parseWhole(*version, "--version");
  options.destination = c.line.value("--to");
  options.overwrite = c.line.has("--overwrite");
  VersionError error;
  const auto restored = browser.restore(c.line.arguments[0], options, &error);
  if (!restored) fail(error.message, error.kind == VersionErrorKind::InvalidPath ? kUsage : kFailed);
  c.report("Restored version " + std::to_string(restored->version.index) + " to " + restored->destinationPath,
           Json::object().set("version", restored->version.index).set("path", restored->destinationPath));
  return kOK;
}

using Runner = int (*)(Context&);
const std::map<std::string, Runner>& runners() {
  static const std::map<std::string, Runner> table{
      {"list", list},         {"manage", manage},     {"adopt", adopt},         {"forget", forget},
      {"pause", pause},       {"activate", activate}, {"backup", backupNow},    {"count", count},
      {"cancel", cancel},     {"set", set},           {"filter", filter},       {"heartbeat", heartbeat},
      {"conversion", conversion}, {"versions", versions}, {"restore", restore},
  };
  return table;
}

void printUsage(std::ostream& out) {
  out << "Usage: skerrowctl [--json] [--session] [--user NAME] [--max-errors N] COMMAND [ARGUMENTS]\n\n"
         "Talks to the Skerrow backup engine (skerrowd) for the user running it.\n\nCommands:\n";
  for (const auto& entry : commandTable()) {
    const std::string head = std::string(entry.name) + " " + entry.synopsis;
    out << "  " << head << std::string(head.size() < 44 ? 44 - head.size() : 1, ' ') << entry.summary << "\n";
  }
  out << "\nGlobal options:\n"
         "  --json           machine-readable output (one JSON document or event per line)\n"
         "  --session        talk to an engine on the session bus (skerrowd -userApp)\n"
         "  --user NAME      act for NAME (only root may act for another user)\n"
         "  --max-errors N   stop a backup after N failed copies in a row (default 0: never)\n"
         "  --version        print the version and exit\n\n"
         "skerrowctl COMMAND --help explains one command.\n";
}

}  // namespace

const std::vector<CommandEntry>& commandTable() {
  static const std::vector<CommandEntry> table{
      {"list", "", "list your backups on mounted disks", "Shows uid, volume, schedule, period, version depth, scheduled categories, last completed backup and mount point of each of your backups.", 0, 0, {}, {}},
      {"manage", "DISK [--depth N] [--period SECONDS] [--categories LIST]", "start backing up onto a disk",
       "DISK is the kernel name of a mounted disk (sdb1) or a path on it (/media/backup). The engine makes the folder \"qs skerrow.skstor/<uid>\" on it, owned by you, and prints the new backup's uid. --depth keeps N versions of each file; --period sets the schedule's interval; --categories backs up only the categories listed (comma-separated; default: all of Pictures, Music, Movies, Mail, Documents, Other).", 1, 1, {"--depth", "--period", "--categories"}, {}},
      {"adopt", "UID", "make a backup found on a disk yours", "A backup of yours found on a disk the engine does not manage becomes managed again.", 1, 1, {}, {}},
      {"forget", "UID", "stop managing a backup", "The engine forgets the backup; its files stay on the disk.", 1, 1, {}, {}},
      {"pause", "", "cancel and unschedule your backups", "Running backups are cancelled and the schedule stops until activate.", 0, 0, {}, {}},
      {"activate", "[UID] [--now]", "schedule your backups again", "With --now, back up at once too (all, or only UID).", 0, 1, {}, {"--now"}},
      {"backup", "[UID] [--no-follow]", "back up now and follow the progress",
       "Starts a backup of UID (or of each of your backups) and shows its progress: the count of your home folder, the comparison with the backup, the copy. Errors are shown as they come, the tally at the end. Exits 0 when every backup completed, 1 when one was stopped or did not complete, 130 when interrupted (the backup is then cancelled).", 0, 1, {}, {"--no-follow"}},
      {"count", "UID", "count what a backup would copy", "Counts files and bytes per category in your home folder, in the backup and still to copy, without copying.", 1, 1, {}, {"--no-follow"}},
      {"cancel", "UID", "cancel a running backup", "Anyone may cancel a running backup.", 1, 1, {}, {}},
      {"set", "UID period SECONDS | depth N | scheduled on|off | category NAME on|off", "change a backup's settings",
       "Categories: Pictures, Music, Movies, Mail, Documents, Other.", 3, 4, {}, {}},
      {"filter", "[EXPRESSION | --clear]", "show or set your exclusion filter",
       "Paths of your home folder matching the regular expression (case-insensitive) are not backed up.", 0, 1, {}, {"--clear"}},
      {"heartbeat", "", "ask the engine for its clock", "Shows that the engine answers.", 0, 0, {}, {}},
      {"conversion", "MOUNTPATH", "state of a conversion of older backups on a disk", "Empty when none runs.", 1, 1, {}, {}},
      {"versions", "PATH [--backup UID]", "list the stored versions of a file",
       "PATH is a file of your home folder (absolute, or relative to your home). Lists each stored version: number (higher is newer), size, dates and where it is stored.", 1, 1, {"--backup"}, {}},
      {"restore", "PATH [--version N] [--to DEST] [--overwrite] [--backup UID]", "copy a stored version back",
       "Restores the newest version (or version N) to its place in your home folder, or to DEST (a folder receives the file under its own name). Times and mode are kept. An existing file is never replaced unless --overwrite is given.", 1, 1, {"--version", "--to", "--backup"}, {"--overwrite"}},
  };
  return table;
}

int run(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err) {
  std::string why;
  const auto line = CommandLine::parse(argv, commandTable(), &why);
  if (!line) {
    err << "skerrowctl: " << why << "\n";
    printUsage(err);
    return kUsage;
  }
  if (line->version) {
    out << "skerrowctl " << platform::projectVersion() << "\n";
    return kOK;
  }
  if (line->help) {
    if (!line->command) {
      printUsage(out);
    } else {
      out << "Usage: skerrowctl " << line->command->name << " " << line->command->synopsis << "\n\n"
          << line->command->summary << ".\n" << line->command->details << "\n";
    }
    return kOK;
  }
  Context context{*line, out, err, {}, nullptr};
  try {
    return runners().at(line->command->name)(context);
  } catch (const Failure& failure) {
    err << "skerrowctl: " << failure.message << "\n";
    return failure.status;
  } catch (const sdbus::Error& e) {
    const std::string& name = e.getName();
    if (name == "org.freedesktop.DBus.Error.AccessDenied") {
      err << "skerrowctl: the engine refused: " << e.getMessage() << "\n";
      return kUnreachable;
    }
    if (name == "org.freedesktop.DBus.Error.ServiceUnknown" || name == "org.freedesktop.DBus.Error.FileNotFound" ||
        name == "org.freedesktop.DBus.Error.NoServer" || name == "org.freedesktop.DBus.Error.NameHasNoOwner") {
      err << "skerrowctl: the engine is not running (" << e.getMessage() << ")\n";
      return kUnreachable;
    }
    err << "skerrowctl: " << name << ": " << e.getMessage() << "\n";
    return kFailed;
  }
}

}  // namespace skerrowctl
