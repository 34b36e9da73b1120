#include "tools/skerrowctl/Context.h"

#include <algorithm>

#include "ipc/WireCoding.h"
#include "ipc/WireOutcome.h"
#include "platform/UnicodeText.h"

namespace skerrowctl {

void fail(const std::string& message, int status) { throw Failure{status, message}; }

void CallbackRelay::tallyCallback(const std::string& member, const QSTallyReference& tally,
                                  const std::optional<std::string>& uid) {
  if (target) target->tallyCallback(member, tally, uid);
}
void CallbackRelay::realtimeTransferStarted(const std::string& source, const std::string& destination) {
  if (target) target->realtimeTransferStarted(source, destination);
}
void CallbackRelay::realtimeTransferFinished(const std::string& source, const std::string& destination, bool result) {
  if (target) target->realtimeTransferFinished(source, destination, result);
}
void CallbackRelay::copyError(const wire::ErrorWire& error) {
  if (target) target->copyError(error);
}
void CallbackRelay::stoppedDueToErrors(const std::string& uid) {
  if (target) target->stoppedDueToErrors(uid);
}
void CallbackRelay::conversionChanged(const std::string& state, const std::string& mountPath) {
  if (target) target->conversionChanged(state, mountPath);
}

std::optional<std::string> uidForPrefix(const std::string& typed, const std::vector<std::string>& uids) {
  if (typed.empty()) return std::nullopt;
  std::string wanted = typed;
  std::transform(wanted.begin(), wanted.end(), wanted.begin(), [](unsigned char c) { return std::toupper(c); });
  std::vector<std::string> matches;
  for (const auto& uid : uids) {
    if (uid == wanted) return uid;
    if (uid.compare(0, wanted.size(), wanted) == 0) matches.push_back(uid);
  }
  if (matches.empty()) return std::nullopt;
  if (matches.size() > 1) {
    std::string list;
    for (const auto& uid : matches) list += "\n  " + uid;
    fail("\"" + typed + "\" names several of your backups; type more of the uid:" + list, kExitUsage);
  }
  return matches.front();
}

QSClientSession& Context::connect(QSClientCallbacks* callbacks) {
  if (callbacks) relay.target = callbacks;
  if (!session) {
    QSClientIdentity identity = QSClientIdentity::currentUser();
    if (line.user) identity.shortUserName = *line.user;
    if (identity.shortUserName.empty()) fail("the user running skerrowctl has no account name", kExitUsage);
    identity.maximumContiguousErrors = line.maximumErrors;
    session = std::make_unique<QSClientSession>(
        line.sessionBus ? QSClientSession::Bus::Session : QSClientSession::Bus::System, identity, relay);
  }
  return *session;
}

Entries Context::backups() {
  Entries entries;
  for (const auto& [uid, record] : service().database()) entries[uid] = wire::fromWire<QSBackupEntry>(record);
  return entries;
}

std::string Context::uidOf(const std::string& typed, bool anyFullUID) {
  std::vector<std::string> uids;
  for (const auto& [uid, entry] : backups()) uids.push_back(uid);
  if (const auto uid = uidForPrefix(typed, uids)) return *uid;
  if (anyFullUID && typed.size() == 36) {
    std::string upper = typed;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    return upper;
  }
  fail("you have no backup " + typed + " on a mounted disk (see: skerrowctl list)");
}

std::shared_ptr<QSBackupEntry> Context::backup(const std::string& typed) {
  const std::string uid = uidOf(typed);
  auto entries = backups();
  const auto it = entries.find(uid);
  if (it == entries.end()) fail("you have no backup " + typed + " on a mounted disk (see: skerrowctl list)");
  return it->second;
}

std::shared_ptr<QSBackupEntry> Context::chosenBackup() {
  if (const auto uid = line.value("--backup")) return backup(*uid);
  auto entries = backups();
  if (entries.empty()) fail("you have no backup on a mounted disk");
  if (entries.size() > 1) fail("you have several backups on mounted disks; choose one with --backup UID");
  return entries.begin()->second;
}

std::optional<QSBackupOutcome> Context::outcomeOf(const std::string& uid) {
  const auto answer = service().outcomeForBackup(uid);
  if (answer.empty()) return std::nullopt;
  return wire::fromWireOutcome(answer.front());
}

void Context::report(const std::string& text, const Json& json) {
  if (line.json)
    out << json.dump() << "\n";
  else
    out << text << "\n";
}

}  // namespace skerrowctl
