// skerrow_bus_client_probe: a client of the engine that sends what
// skerrowctl never would, for the tests of the engine's defences.
//
//   skerrow_bus_client_probe [--user NAME] intrude UID
//       every call of the backup service on the backup UID, one line each:
//       "<method> ok <answer>" or "<method> error <D-Bus error name>"
//   skerrow_bus_client_probe [--user NAME] malformed
//       100 malformed requests (unknown and path-like uids, empty and 10 MB
//       strings, invalid expressions, unknown categories, BSD names that are
//       not mounted or look like paths, odd property-list values); prints
//       "malformed <n> sent, <e> errors" and exits 0 when every request was
//       answered or, one-way, sent
//   skerrow_bus_client_probe [--user NAME] cancel UID
//       cancels what runs for UID; prints "cancelled" once the engine has
//       served the request
//   skerrow_bus_client_probe [--user NAME] category UID NAME
//       sets the scheduled flag of category NAME of UID, then prints the database
//   skerrow_bus_client_probe [--user NAME] cancel-during PHASE UID [DIR]
//       starts a backup of UID and cancels it during PHASE, seen through
//       the tallies the engine lends: "source" (the home folder's count
//       passed 1,000 files), "destination" (the backup folder's count passed
//       1,000 files, nothing expected yet), "dryrun" (the dry run has
//       counted a file to copy, the destination count not finished), or
//       "copy" (a copy's temporary file in DIR passed 64 MiB).  Prints
//       "phase PHASE reached", "cancelled", "outcome <state> <ms>" (the ms
//       from the cancel to the engine's outcome of the backup), then starts
//       a count and prints "count started <ms>" and "count ended <state>"
//   skerrow_bus_client_probe [--user NAME] cancel-in-callback UID
//       starts a backup of UID and, inside the startedTransferTally
//       callback, before answering it, cancels the backup and asks the
//       heartbeat: prints "heartbeat <ms>", then "outcome <state>"
//   skerrow_bus_client_probe [--user NAME] server-ops BSDNAME [with-service]
//       every operation of the server object, each expecting an answer:
//       "<method> ok <answer>" or "<method> error <D-Bus error name>";
//       with-service: after getting a backup service first"
//
// The client claims NAME (default: the user running it).  Exit status 3
// when the engine refuses the service.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "client/QSClientSession.h"

namespace {

std::string describe(const sdbus::Error& e) { return "error " + e.getName(); }

template <class Call>
void probe(const std::string& name, Call&& call) {
  try {
    std::cout << name << " ok " << call() << "\n";
  } catch (const sdbus::Error& e) {
    std::cout << name << " " << describe(e) << "\n";
  }
}

int intrude(QSClientSession& session, const std::string& uid) {
  auto& s = session.service();
  probe("database", [&] { return std::to_string(s.database().size()); });
  probe("versionDepthForBackup", [&] { return std::to_string(s.versionDepthForBackup(uid)); });
  probe("isScheduled", [&] { return std::to_string(s.isScheduled(uid)); });
  probe("periodForBackup", [&] { return std::to_string(s.periodForBackup(uid)); });
  probe("userInfoForBackup_forCategory",
        [&] { return std::to_string(s.userInfoForBackup_forCategory(uid, "Documents").size()); });
  probe("setVersionDepth_forBackup", [&] { return s.setVersionDepth_forBackup(99, uid), std::string("sent"); });
  probe("setScheduled_forBackup", [&] { return s.setScheduled_forBackup(true, uid), std::string("sent"); });
  probe("setPeriod_forBackup", [&] { return s.setPeriod_forBackup(7, uid), std::string("sent"); });
  probe("setScheduled_forBackup_forCategory",
        [&] { return s.setScheduled_forBackup_forCategory(false, uid, "Documents"), std::string("sent"); });
  probe("setUserInfo_forBackup_forCategory", [&] {
    return s.setUserInfo_forBackup_forCategory({{"owned", sdbus::Variant(std::string("by bob"))}}, uid, "Documents"),
           std::string("sent");
  });
  probe("activateAndBackupImmediatelyForUID",
        [&] { return s.activateAndBackupImmediatelyForUID(uid), std::string("sent"); });
  probe("startBackup", [&] { return s.startBackup(uid), std::string("sent"); });
  probe("startTally", [&] { return s.startTally(uid), std::string("sent"); });
  probe("takeOverGuestBackup", [&] { return s.takeOverGuestBackup(uid), std::string("done"); });
  probe("stopManagingBackup", [&] { return std::to_string(s.stopManagingBackup(uid)); });
  probe("cancelBackup", [&] { return s.cancelBackup(uid), std::string("sent"); });
  probe("heartbeat", [&] { return std::to_string(std::get<0>(s.heartbeat())); });
  return 0;
}

int malformed(QSClientSession& session) {
  auto& s = session.service();
  const std::string huge(10 << 20, 'x');
  const std::vector<std::string> uids = {"", "../..", "../../etc", "/", ".", huge, std::string(1, '\0') + "a",
                                         "5E4B0C1A-0000-4000-8000-00000000A11E/..", "\xff\xfe"};
  const std::vector<std::string> bsdNames = {"", "/", "..", ".", "../../dev/sda", "sdz9", "loop0/../sda", huge,
                                             "/dev/sda1", "sda1\n"};
  const std::vector<std::string> expressions = {"(", "[", "a{2,1}", "(?<", "*", huge};
  int sent = 0;
  int errors = 0;
  auto count = [&](auto&& call) {
    ++sent;
    try {
      call();
    } catch (const sdbus::Error&) {
      ++errors;
    }
  };
  for (const auto& uid : uids) {
    if (uid.find('\0') != std::string::npos || uid == "\xff\xfe") {
      // Not valid D-Bus strings: the library refuses to send them.
      count([&] { s.versionDepthForBackup(uid); });
      continue;
    }
    count([&] { s.versionDepthForBackup(uid); });
    count([&] { s.setVersionDepth_forBackup(3, uid); });
    count([&] { s.isScheduled(uid); });
    count([&] { s.setScheduled_forBackup(true, uid); });
    count([&] { s.setPeriod_forBackup(-1, uid); });
    count([&] { s.setScheduled_forBackup_forCategory(true, uid, "NoSuchCategory"); });
    count([&] { s.userInfoForBackup_forCategory(uid, huge); });
    count([&] { s.startBackup(uid); });
    count([&] { s.stopManagingBackup(uid); });
  }
  for (const auto& name : bsdNames) count([&] { s.startManagingVolumeWithBSDName_didSucceed(name); });
  for (const auto& expression : expressions) count([&] { s.setPathSuffixExclusionFilter({expression}); });
  count([&] { s.setPathSuffixExclusionFilter({"a", "b"}); });
  std::map<std::string, sdbus::Variant> odd;
  odd["nested"] = sdbus::Variant(std::map<std::string, sdbus::Variant>{{"deeper", sdbus::Variant(huge)}});
  odd["struct"] = sdbus::Variant(sdbus::Struct<int32_t, std::string>(1, "x"));
  count([&] { s.setUserInfo_forBackup_forCategory(odd, "../..", "Documents"); });
  while (sent < 100) count([&] { s.startTally(std::to_string(sent) + "/../" + std::to_string(sent)); });
  std::cout << "malformed " << sent << " sent, " << errors << " errors\n";
  return 0;
}

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// The files and bytes of one view of a tally, summed over the categories.
std::pair<int64_t, int64_t> totals(const std::map<std::string, std::vector<sdbus::Struct<int64_t>>>& view) {
  std::pair<int64_t, int64_t> sum{0, 0};
  for (const auto& [category, counters] : view) {
    if (counters.size() > 0) sum.first += std::get<0>(counters[0]);
    if (counters.size() > 1) sum.second += std::get<0>(counters[1]);
  }
  return sum;
}

// Remembers the tallies the engine lends and the callbacks in order.
struct Watcher : QSClientCallbacks {
  std::optional<QSTallyReference> source, destination, transfer;
  std::vector<std::string> members;
  std::function<void(const std::string&)> inside;
  void tallyCallback(const std::string& member, const QSTallyReference& tally,
                     const std::optional<std::string>&) override {
    members.push_back(member);
    if (member == "startedSourceTally") source = tally;
    if (member == "startedDestinationTally_withUID") destination = tally;
    if (member == "startedTransferTally_withUID") transfer = tally;
    if (inside) inside(member);
  }
  bool saw(const std::string& member) const {
    return std::find(members.begin(), members.end(), member) != members.end();
  }
};

uint64_t lastSequence(QSServiceProxy& service, const std::string& uid) {
  const auto outcome = service.outcomeForBackup(uid);
  return outcome.empty() ? 0 : std::get<12>(outcome.front());
}

// Waits (serving callbacks) for an outcome of `uid` newer than `after`; its state, or "none".
std::string awaitOutcome(QSClientSession& session, const std::string& uid, uint64_t after,
                         std::chrono::seconds limit) {
  const auto until = Clock::now() + limit;
  while (Clock::now() < until) {
    const auto outcome = session.service().outcomeForBackup(uid);
    if (!outcome.empty() && std::get<12>(outcome.front()) > after) return std::get<2>(outcome.front());
    session.pump(std::chrono::milliseconds(5));
  }
  return "none";
}

// The largest copy in progress (".skerrow-" temporary file) below `folder`.
uintmax_t largestTemporaryBelow(const std::string& folder) {
  uintmax_t largest = 0;
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(folder, error);
       it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (error) break;
    if (it->path().filename().string().rfind(".skerrow-", 0) != 0) continue;
    largest = std::max(largest, it->file_size(error));
  }
  return largest;
}

int cancelDuring(QSClientSession& session, Watcher& watcher, const std::string& phase, const std::string& uid,
                 const std::string& folder) {
  auto& service = session.service();
  const uint64_t before = lastSequence(service, uid);
  service.startBackup(uid);
  auto reached = [&]() -> bool {
    if (phase == "source" && watcher.source)
      return totals(std::get<0>(session.tally(*watcher.source)->snapshot())).first > 1000;
    if (phase == "destination" && watcher.destination) {
      const auto tally = session.tally(*watcher.destination)->snapshot();
      return totals(std::get<1>(tally)).first > 1000 && totals(std::get<3>(tally)).first == 0;
    }
    if (phase == "dryrun" && watcher.destination && !watcher.saw("finishedDestinationTally_withUID"))
      return totals(std::get<3>(session.tally(*watcher.destination)->snapshot())).first > 0;
    if (phase == "copy" && watcher.transfer) return largestTemporaryBelow(folder) > (64u << 20);
    return false;
  };
  const auto until = Clock::now() + std::chrono::seconds(300);
  while (!reached()) {
    if (Clock::now() > until || watcher.saw("finishedTransferTally_withUID")) {
      std::cout << "phase " << phase << " missed\n";
      return 1;
    }
    session.pump(std::chrono::milliseconds(1));
  }
  std::cout << "phase " << phase << " reached\n";
  const auto cancelledAt = Clock::now();
  service.cancelBackup(uid);
  service.heartbeat();  // served after the one-way cancel
  std::cout << "cancelled\n";
  const std::string state = awaitOutcome(session, uid, before, std::chrono::seconds(30));
  std::cout << "outcome " << state << " " << msSince(cancelledAt) << std::endl;
  const uint64_t cancelledSequence = lastSequence(service, uid);
  const size_t seen = watcher.members.size();
  const auto asked = Clock::now();
  service.startTally(uid);
  while (Clock::now() - asked < std::chrono::seconds(30)) {
    if (std::find(watcher.members.begin() + static_cast<std::ptrdiff_t>(seen), watcher.members.end(),
                  "startedSourceTally") != watcher.members.end())
      break;
    session.pump(std::chrono::milliseconds(1));
  }
  std::cout << "count started " << msSince(asked) << std::endl;
  std::cout << "count ended " << awaitOutcome(session, uid, cancelledSequence, std::chrono::seconds(120)) << "\n";
  return 0;
}

int cancelInCallback(QSClientSession& session, Watcher& watcher, const std::string& uid) {
  auto& service = session.service();
  const uint64_t before = lastSequence(service, uid);
  bool done = false;
  watcher.inside = [&](const std::string& member) {
    if (member != "startedTransferTally_withUID" || done) return;
    done = true;
    // Still inside the callback: the engine's copying thread waits for this answer.
    service.cancelBackup(uid);
    const auto asked = Clock::now();
    service.heartbeat();
    std::cout << "heartbeat " << msSince(asked) << std::endl;
  };
  service.startBackup(uid);
  const auto until = Clock::now() + std::chrono::seconds(300);
  while (!done && Clock::now() < until) session.pump(std::chrono::milliseconds(5));
  if (!done) return 1;
  std::cout << "outcome " << awaitOutcome(session, uid, before, std::chrono::seconds(30)) << "\n";
  return 0;
}

// Calls `member` of the server object and waits for its answer, also for
// the one-way methods, so that a refusal comes back.
template <class... Args>
void serverCall(QSClientSession& session, const std::string& member, const Args&... args) {
  try {
    auto& proxy = session.server().getProxy();
    auto call = proxy.createMethodCall("com.qsc.skerrow.QSSkerrowServerProtocol", member);
    if constexpr (sizeof...(args) > 0) (call << ... << args);
    auto reply = proxy.callMethod(call);
    std::cout << member << " ok\n";
  } catch (const sdbus::Error& e) {
    std::cout << member << " " << describe(e) << "\n";
  }
}

int serverOps(QSClientSession& session, const std::string& bsdName, bool withService) {
  if (withService) std::cout << "service ok " << session.service().database().size() << "\n";
  serverCall(session, "supportsContinuousBackup");
  serverCall(session, "setSupportsContinuousBackup", false);
  serverCall(session, "remountDriveWithBSDName", bsdName);
  serverCall(session, "jobs");
  serverCall(session, "conversionStateForMountPath", std::string("/"));
  try {
    std::cout << "db2 ok " << session.server().db2().size() << "\n";
  } catch (const sdbus::Error& e) {
    std::cout << "db2 " << describe(e) << "\n";
  }
  serverCall(session, "exit");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  QSClientIdentity identity = QSClientIdentity::currentUser();
  if (args.size() >= 2 && args[0] == "--user") {
    identity.shortUserName = args[1];
    args.erase(args.begin(), args.begin() + 2);
  }
  if (args.empty()) {
    std::cerr << "usage: skerrow_bus_client_probe [--user NAME] intrude UID | malformed | cancel UID | category UID NAME\n";
    return 2;
  }
  Watcher watcher;
  try {
    QSClientSession session(QSClientSession::Bus::System, identity, watcher);
    if (args[0] == "cancel-during" && (args.size() == 3 || args.size() == 4))
      return cancelDuring(session, watcher, args[1], args[2], args.size() == 4 ? args[3] : std::string());
    if (args[0] == "cancel-in-callback" && args.size() == 2) return cancelInCallback(session, watcher, args[1]);
    if (args[0] == "server-ops" && (args.size() == 2 || (args.size() == 3 && args[2] == "with-service")))
      return serverOps(session, args[1], args.size() == 3);
    if (args[0] == "intrude" && args.size() == 2) return intrude(session, args[1]);
    if (args[0] == "malformed") return malformed(session);
    if (args[0] == "cancel" && args.size() == 2) {
      session.service().cancelBackup(args[1]);
      session.service().heartbeat();  // served after the one-way cancel
      std::cout << "cancelled\n";
      return 0;
    }
    if (args[0] == "category" && args.size() == 3) {
      session.service().setScheduled_forBackup_forCategory(true, args[1], args[2]);
      for (const auto& [uid, entry] : session.service().database()) {
        std::cout << uid;
        for (const auto& [category, record] : std::get<11>(entry))
          std::cout << " " << category << "=" << std::get<0>(record);
        std::cout << "\n";
      }
      return 0;
    }
  } catch (const sdbus::Error& e) {
    std::cout << "service " << describe(e) << ": " << e.getMessage() << "\n";
    return e.getName() == "org.freedesktop.DBus.Error.AccessDenied" ? 3 : 1;
  }
  std::cerr << "unknown command\n";
  return 2;
}
