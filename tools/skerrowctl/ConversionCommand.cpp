// skerrowctl conversion [MOUNTPATH] [--wait SECONDS]: follows the conversion
// of an older product's backups on a disk (or on every mounted disk) state
// by state, and when it ends lists the backups it made.
#include <csignal>
#include <set>

#include <unistd.h>

#include <sdbus-c++/Error.h>

#include "Engine/records/QSVolumeFunctions.h"
#include "ipc/WireCoding.h"
#include "tools/skerrowctl/CommandsInternal.h"
#include "tools/skerrowctl/ConversionFollower.h"

namespace skerrowctl {

namespace {

// The state of a conversion that could not begin: the reason follows.
constexpr const char* kNotConvertedPrefix = "QS Tidevault - NotConverted: ";

volatile int gConversionInterrupted = 0;
extern "C" void onConversionInterrupt(int) { gConversionInterrupted = 1; }

// The backups the client may see: every mounted one for root, else the user's own.
Entries visibleBackups(Context& c) {
  if (::geteuid() != 0 || c.line.user) return c.backups();
  Entries entries;
  for (const auto& [uid, record] : c.connect().server().db2()) entries[uid] = wire::fromWire<QSBackupEntry>(record);
  return entries;
}

std::string categoriesOf(const QSBackupEntry& entry) {
  std::string text;
  for (const auto& category : entry.scheduledCategories()) text += (text.empty() ? "" : ",") + category;
  return text.empty() ? "-" : text;
}

std::string joined(const std::set<std::string>& paths) {
  std::string where;
  for (const auto& path : paths) where += (where.empty() ? "" : ", ") + path;
  return where;
}

}  // namespace

int conversionCommand(Context& c) {
  std::set<std::string> mountPaths;
  if (!c.line.arguments.empty()) {
    std::string mountPath = c.line.arguments[0];
    while (mountPath.size() > 1 && mountPath.back() == '/') mountPath.pop_back();
    mountPaths.insert(mountPath);
  } else {
    for (const auto& [bsdName, volume] : QSVolumeInfoForLocalVolumes()) mountPaths.insert(volume->mountPoint());
  }
  const auto wait = std::chrono::seconds(c.line.value("--wait") ? parseWhole(*c.line.value("--wait"), "--wait") : 0);
  ConversionFollower follower(mountPaths, c.line.json, c.out, [&c](const std::string& mountPath) {
    const auto state = c.connect().server().conversionStateForMountPath(mountPath);
    return state.empty() ? std::string() : state.front();
  });
  QSClientSession& session = c.connect(&follower);
  // A registered client hears of every state; without that, the states asked for are shown.
  try {
    session.service();
  } catch (const sdbus::Error& e) {
    c.err << "skerrowctl: the engine's news of conversions is not available (" << e.getMessage()
          << "); following by asking instead\n";
  }
  const Entries before = visibleBackups(c);
  struct sigaction action {};
  action.sa_handler = onConversionInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  if (wait.count() > 0) {
    c.report("Waiting up to " + std::to_string(wait.count()) + " s for a conversion on " + joined(mountPaths),
             Json::object().set("event", "waiting").set("seconds", static_cast<uint64_t>(wait.count())));
    c.out.flush();
  }
  follower.follow(session, wait, &gConversionInterrupted);
  if (gConversionInterrupted) return kExitInterrupted;
  if (follower.states().empty()) {
    const std::string where = joined(mountPaths);
    c.report("No conversion runs on " + (where.empty() ? std::string("any disk") : where),
             Json::object().set("event", "none").set("mountPaths", Json(where)));
    return kExitOK;
  }
  int status = kExitOK;
  const Entries after = visibleBackups(c);
  for (const auto& [mountPath, states] : follower.states()) {
    const std::string last = states.back();
    if (last.rfind(kNotConvertedPrefix, 0) == 0) status = kExitFailed;
    Json made = Json::array();
    std::vector<std::vector<std::string>> rows{{"UID", "USER", "DEPTH", "CATEGORIES"}};
    for (const auto& [uid, entry] : after) {
      if (before.count(uid) || entry->mountPoint() != mountPath) continue;
      made.push(entryJson(*entry));
      rows.push_back({uid, entry->shortUserName(), std::to_string(entry->versionDepth()), categoriesOf(*entry)});
    }
    if (c.line.json) {
      c.out << Json::object().set("event", "end").set("mountPath", mountPath).set("state", last).set("backups", made).dump()
            << "\n";
    } else {
      c.out << "Conversion on " << mountPath << " ended: " << last << "\n";
      if (rows.size() > 1) {
        c.out << "New backups:\n";
        printTable(c.out, rows);
      } else {
        c.out << "No new backup of yours\n";
      }
    }
  }
  return status;
}

}  // namespace skerrowctl
