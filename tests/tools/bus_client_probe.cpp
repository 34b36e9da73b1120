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
//
// The client claims NAME (default: the user running it).  Exit status 3
// when the engine refuses the service.
#include <iostream>
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
  QSClientCallbacks ignore;
  try {
    QSClientSession session(QSClientSession::Bus::System, identity, ignore);
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
