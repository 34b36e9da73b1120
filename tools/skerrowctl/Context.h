// What every skerrowctl command works with: its command line, its output
// streams, and a session with the engine opened on first use; the user's
// backups, found by a unique prefix of their uid as git finds commits; and
// one way to report a result (text for people, JSON for programs) or a
// failure (a message and an exit status, see ExitStatus.h).
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSBackupOutcome.h"
#include "client/QSClientSession.h"
#include "tools/skerrowctl/CommandLine.h"
#include "tools/skerrowctl/ExitStatus.h"
#include "tools/skerrowctl/Json.h"

namespace skerrowctl {

using Entries = std::map<std::string, std::shared_ptr<QSBackupEntry>>;

// A refusal or failure to report to the user, with its exit status.
struct Failure {
  int status;
  std::string message;
};
[[noreturn]] void fail(const std::string& message, int status = kExitFailed);

// Hands the engine's callbacks to whoever follows them now (nobody at first).
struct CallbackRelay : QSClientCallbacks {
  QSClientCallbacks* target = nullptr;
  void tallyCallback(const std::string& member, const QSTallyReference& tally,
                     const std::optional<std::string>& uid) override;
  void realtimeTransferStarted(const std::string& source, const std::string& destination) override;
  void realtimeTransferFinished(const std::string& source, const std::string& destination, bool result) override;
  void copyError(const wire::ErrorWire& error) override;
  void stoppedDueToErrors(const std::string& uid) override;
  void conversionChanged(const std::string& state, const std::string& mountPath) override;
};

// The uid among `uids` that `typed` names: the uid itself, or a prefix of
// exactly one (letter case ignored).  Nothing when none matches; fails
// with kExitUsage, listing the candidates, when several do.
std::optional<std::string> uidForPrefix(const std::string& typed, const std::vector<std::string>& uids);

struct Context {
  Context(const CommandLine& line, std::ostream& out, std::ostream& err) : line(line), out(out), err(err) {}

  const CommandLine& line;
  std::ostream& out;
  std::ostream& err;
  CallbackRelay relay;
  std::unique_ptr<QSClientSession> session;

  // The session; `callbacks`, when given, receives the engine's callbacks from now on.
  QSClientSession& connect(QSClientCallbacks* callbacks = nullptr);
  QSServiceProxy& service() { return connect().service(); }

  // The user's backups, by uid.
  Entries backups();
  // The uid of the user's backup `typed` names (a unique prefix); fails
  // when there is none.  A full uid the user has no backup of is answered
  // as typed when `anyFullUID` (anyone may cancel any backup).
  std::string uidOf(const std::string& typed, bool anyFullUID = false);
  std::shared_ptr<QSBackupEntry> backup(const std::string& typed);
  // The backup a file command reads: the one named with --backup, or the only one.
  std::shared_ptr<QSBackupEntry> chosenBackup();
  // How the backup's last run ended, as the engine recorded it.
  std::optional<QSBackupOutcome> outcomeOf(const std::string& uid);

  // Prints `text` to people, or `json` to programs (one line).
  void report(const std::string& text, const Json& json);
};

}  // namespace skerrowctl
