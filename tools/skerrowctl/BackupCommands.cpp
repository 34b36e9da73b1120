// skerrowctl backup, count and cancel: start the engine's work, follow it to
// its outcome, and say how it ended.
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <set>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/FileManager.h"
#include "tools/skerrowctl/BackupFollower.h"
#include "tools/skerrowctl/CommandsInternal.h"
#include "tools/skerrowctl/Wording.h"

namespace skerrowctl {

namespace {

// How long a followed backup may stay silent before skerrowctl gives up on it.
constexpr std::chrono::seconds kIdleLimit{300};

volatile sig_atomic_t gInterrupted = 0;
extern "C" void onInterrupt(int) { gInterrupted = 1; }

// The engine as the follower sees it, over the session.
class SessionEngine : public FollowedEngine {
 public:
  explicit SessionEngine(Context& context) : context_(context) {}
  std::optional<wire::TallyWire> readTally(const QSTallyReference& reference) override {
    auto& proxy = tallies_[reference.sender + reference.path];
    if (!proxy) proxy = context_.connect().tally(reference);
    return proxy->snapshot();
  }
  std::optional<QSBackupOutcome> outcomeForBackup(const std::string& uid) override { return context_.outcomeOf(uid); }
  void serve(std::chrono::milliseconds timeout, const std::function<bool()>& done) override {
    context_.connect().pump(timeout, done);
  }
  double now() override {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }

 private:
  Context& context_;
  std::map<std::string, std::unique_ptr<QSTallyProxy>> tallies_;
};

size_t terminalWidth() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

void catchInterrupts() {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
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
  std::vector<std::vector<std::string>> rows{{"CATEGORY", "AT HOME", "IN BACKUP", "COPIED", "TO COPY"}};
  auto cell = [](const std::vector<wire::CounterWire>& counters) {
    if (counters.size() < 2) return std::string("-");
    return grouped(std::get<0>(counters[0])) + " " + humanBytes(std::get<0>(counters[1]));
  };
  for (const char* category : kAllCategories) {
    std::vector<std::string> row{category};
    bool any = false;
    for (const auto* view : views) {
      const auto it = view->find(category);
      any = any || it != view->end();
      row.push_back(it == view->end() ? "-" : cell(it->second));
    }
    if (any) rows.push_back(row);
  }
  std::vector<std::string> total{"total"};
  for (const auto* view : views) {
    const TallyTotals t = BackupFollower::totalsOf(*view);
    total.push_back(grouped(t.files) + " " + humanBytes(t.bytes));
  }
  rows.push_back(total);
  printTable(c.out, rows);
}

std::string failedWords(const QSBackupOutcome& o) {
  std::string text = countOf(o.failedFiles, "file", "files");
  if (o.commonFailure.empty()) return text;
  if (o.commonFailureCount == o.failedFiles) return text + ": " + o.commonFailure;
  return text + ", most often " + o.commonFailure + " (" + countOf(o.commonFailureCount, "file", "files") + ")";
}

std::string endWords(const QSBackupOutcome& o) {
  const std::string what = o.kind == QSBackupOutcome::Kind::Count ? "Count" : "Backup";
  const std::string took = wordedDuration(o.ended.timeIntervalSinceDate(o.started));
  switch (o.state) {
    case QSBackupOutcome::State::Completed: return what + " " + o.uid.substr(0, 8) + " completed in " + took;
    case QSBackupOutcome::State::CompletedWithFailures:
      return what + " " + o.uid.substr(0, 8) + " completed with failed copies in " + took;
    case QSBackupOutcome::State::Cancelled: return what + " " + o.uid.substr(0, 8) + " was cancelled after " + took;
    case QSBackupOutcome::State::Stopped:
      return what + " " + o.uid.substr(0, 8) + " was stopped after too many failed copies in a row (" + took + ")";
  }
  return what;
}

int statusOf(const QSBackupOutcome& o) {
  switch (o.state) {
    case QSBackupOutcome::State::Completed: return kExitOK;
    case QSBackupOutcome::State::CompletedWithFailures:
    case QSBackupOutcome::State::Stopped: return kExitCopiesFailed;
    case QSBackupOutcome::State::Cancelled: return kExitCancelled;
  }
  return kExitFailed;
}

// The worse of two statuses, for several backups followed at once.
int worse(int a, int b) {
  static const int order[] = {kExitOK, kExitCopiesFailed, kExitFailed, kExitCancelled, kExitNoEngine,
                              kExitInterrupted};
  auto rank = [](int s) {
    for (size_t i = 0; i < std::size(order); ++i)
      if (order[i] == s) return i;
    return std::size(order);
  };
  return rank(a) >= rank(b) ? a : b;
}

void summarise(Context& c, const BackupFollower::Followed& followed, const std::optional<std::string>& mountPoint,
               bool showTally) {
  const QSBackupOutcome& o = *followed.outcome;
  const auto free = mountPoint ? platform::FileManager::freeSpaceAtPath(*mountPoint) : std::nullopt;
  if (c.line.json) {
    if (showTally && followed.tally) printTally(c, o.uid, *followed.tally);
    c.out << Json::object()
                 .set("event", "end")
                 .set("uid", o.uid)
                 .set("kind", QSBackupOutcome::kindName(o.kind))
                 .set("state", QSBackupOutcome::stateName(o.state))
                 .set("completed", o.state == QSBackupOutcome::State::Completed)
                 .set("started", isoDate(o.started, true))
                 .set("ended", isoDate(o.ended, true))
                 .set("seconds", o.ended.timeIntervalSinceDate(o.started))
                 .set("filesCopied", o.filesCopied)
                 .set("bytesCopied", o.bytesCopied)
                 .set("filesExpected", o.filesExpected)
                 .set("bytesExpected", o.bytesExpected)
                 .set("failedFiles", o.failedFiles)
                 .set("commonFailure", o.commonFailure.empty() ? Json() : Json(o.commonFailure))
                 .set("commonFailureCount", o.commonFailureCount)
                 .set("errors", followed.errorsSeen)
                 .set("bytesFree", free ? Json(*free) : Json())
                 .dump()
          << "\n";
    return;
  }
  if (showTally && followed.tally) printTally(c, o.uid, *followed.tally);
  c.out << endWords(o) << "\n";
  if (o.kind == QSBackupOutcome::Kind::Count) {
    c.out << "  to copy   " << countOf(o.filesExpected, "file", "files") << ", " << humanBytes(o.bytesExpected) << "\n";
  } else {
    c.out << "  copied    " << grouped(o.filesCopied) << " of " << countOf(o.filesExpected, "file", "files") << ", "
          << humanBytes(o.bytesCopied) << " of " << humanBytes(o.bytesExpected) << "\n";
    if (o.failedFiles > 0) c.out << "  failed    " << failedWords(o) << "\n";
  }
  if (free) c.out << "  disk      " << humanBytes(static_cast<int64_t>(*free)) << " free on " << *mountPoint << "\n";
}

// Starts a backup or a count of each of `uids` and follows it to its end.
int follow(Context& c, const std::set<std::string>& uids, QSBackupOutcome::Kind kind) {
  const bool count = kind == QSBackupOutcome::Kind::Count;
  const Entries entries = c.backups();
  std::vector<BackupFollower::Target> targets;
  std::map<std::string, std::string> mountPoints;
  for (const auto& uid : uids) {
    const auto it = entries.find(uid);
    if (it == entries.end()) fail("you have no backup " + uid + " on a mounted disk (see: skerrowctl list)");
    if (it->second->mountPoint().empty()) fail("the disk of backup " + uid.substr(0, 8) + " is not mounted");
    if (!count && it->second->scheduledCategories().empty())
      fail("the backup " + uid.substr(0, 8) + " has no category to back up; choose some with: skerrowctl set " +
           uid.substr(0, 8) + " category NAME on");
    const auto before = c.outcomeOf(uid);
    targets.push_back({uid, before ? before->sequence : 0});
    mountPoints[uid] = it->second->mountPoint();
  }
  BackupFollower::Output output;
  output.json = c.line.json;
  output.terminal = ::isatty(STDERR_FILENO) == 1;
  output.width = terminalWidth();
  BackupFollower follower(targets, kind, output, c.out, c.err);
  SessionEngine engine(c);
  follower.setEngine(&engine);
  follower.setExpectedHandler([&](const std::string& uid, const TallyTotals& expected) {
    const auto free = platform::FileManager::freeSpaceAtPath(mountPoints[uid]);
    if (!free || expected.bytes <= static_cast<int64_t>(*free)) return;
    if (c.line.json) {
      c.out << Json::object()
                   .set("event", "notEnoughSpace")
                   .set("uid", uid)
                   .set("bytesExpected", expected.bytes)
                   .set("bytesFree", *free)
                   .dump()
            << "\n"
            << std::flush;
    } else {
      c.err << "skerrowctl: the backup needs " << humanBytes(expected.bytes) << " but only "
            << humanBytes(static_cast<int64_t>(*free)) << " is free on " << mountPoints[uid]
            << "; the files that do not fit will fail\n"
            << std::flush;
    }
  });
  c.connect(&follower);
  catchInterrupts();
  for (const auto& uid : uids) count ? c.service().startTally(uid) : c.service().startBackup(uid);
  if (c.line.has("--no-follow")) {
    c.report(count ? "Count started" : "Backup started", Json::object().set("started", true));
    return kExitOK;
  }
  const bool ended = follower.follow(kIdleLimit, &gInterrupted);
  if (gInterrupted) {
    for (const auto& uid : uids) c.service().cancelBackup(uid);
    c.service().heartbeat();  // a round trip: the one-way cancel has been served
    if (c.line.json)
      c.out << Json::object().set("event", "interrupted").set("cancelled", true).dump() << "\n";
    else
      c.err << "Interrupted: the " << (count ? "count" : "backup") << " was cancelled\n";
    return kExitInterrupted;
  }
  int status = kExitOK;
  for (const auto& [uid, followed] : follower.results()) {
    if (!followed.outcome) {
      status = worse(status, kExitFailed);
      const std::string why = "skerrowctl heard nothing from the engine about " + uid.substr(0, 8) + " for " +
                              std::to_string(kIdleLimit.count()) +
                              " s; it may still be running (see: skerrowctl list)";
      if (c.line.json)
        c.out << Json::object().set("event", "end").set("uid", uid).set("state", Json()).set("error", why).dump()
              << "\n";
      else
        c.err << why << "\n";
      continue;
    }
    status = worse(status, statusOf(*followed.outcome));
    summarise(c, followed, mountPoints[uid], count || c.line.has("--tally"));
  }
  (void)ended;
  return status;
}

}  // namespace

int backupCommand(Context& c) {
  std::set<std::string> uids;
  if (!c.line.arguments.empty()) {
    uids.insert(c.uidOf(c.line.arguments[0]));
  } else {
    for (const auto& [uid, entry] : c.backups())
      if (!entry->mountPoint().empty()) uids.insert(uid);
    if (uids.empty()) fail("you have no backup on a mounted disk");
  }
  return follow(c, uids, QSBackupOutcome::Kind::Backup);
}

int countCommand(Context& c) { return follow(c, {c.uidOf(c.line.arguments[0])}, QSBackupOutcome::Kind::Count); }

int cancelCommand(Context& c) {
  const std::string uid = c.uidOf(c.line.arguments[0], /*anyFullUID=*/true);
  const bool own = c.backups().count(uid) != 0;
  const auto before = own ? c.outcomeOf(uid) : std::nullopt;
  c.service().cancelBackup(uid);
  c.service().heartbeat();
  if (!own) {
    c.report("Asked the engine to cancel what runs for " + uid, Json::object().set("uid", uid).set("cancelled", Json()));
    return kExitOK;
  }
  // What ran ends with a cancelled outcome within about a second; nothing
  // is recorded when nothing ran.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  std::optional<QSBackupOutcome> after;
  do {
    after = c.outcomeOf(uid);
    if (after && after->sequence > (before ? before->sequence : 0)) break;
    after.reset();
    c.connect().pump(std::chrono::milliseconds(100));
  } while (std::chrono::steady_clock::now() < deadline);
  const bool cancelled = after && after->state == QSBackupOutcome::State::Cancelled;
  c.report(cancelled ? "Cancelled the " + std::string(QSBackupOutcome::kindName(after->kind)) + " of " + uid.substr(0, 8)
                     : "Nothing of " + uid.substr(0, 8) + " was running",
           Json::object()
               .set("uid", uid)
               .set("cancelled", cancelled)
               .set("kind", cancelled ? Json(QSBackupOutcome::kindName(after->kind)) : Json()));
  return kExitOK;
}

}  // namespace skerrowctl
