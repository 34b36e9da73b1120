// Follows backups (or counts) of the user while the engine runs them: a
// live progress line per phase on the terminal, errors as they come, and
// the outcome of each followed backup.  With JSON output every callback is
// one JSON line on standard output instead.
//
// Single-threaded, like the session: callbacks arrive while
// `waitUntilDone` pumps the session, and read the lent tally from there.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>

#include "client/QSClientCallbacks.h"
#include "client/QSClientSession.h"
#include "ipc/WireTypes.h"

namespace skerrowctl {

class BackupFollower : public QSClientCallbacks {
 public:
  enum class Outcome { Running, Finished, StoppedDueToErrors };
  struct Followed {
    Outcome outcome = Outcome::Running;
    std::optional<wire::TallyWire> tally;  // the last snapshot read
    uint64_t errors = 0;
  };

  // Follows `uids`; a count ends with its destination tally, a backup with
  // its transfer.
  BackupFollower(std::set<std::string> uids, bool countOnly, bool json, std::ostream& out, std::ostream& err);

  // The session to read tallies through; set before anything is started.
  void setSession(QSClientSession* session);

  // Serves the session until every followed backup ended, `interrupted`
  // turns true, or nothing was heard for `idle`; answers whether all ended.
  bool waitUntilDone(std::chrono::seconds idle, const volatile int* interrupted);
  // Whether every followed backup ended.
  bool allEnded() const;
  std::map<std::string, Followed> results() const;

  void tallyCallback(const std::string& member, const QSTallyReference& tally,
                     const std::optional<std::string>& uid) override;
  void copyError(const wire::ErrorWire& error) override;
  void stoppedDueToErrors(const std::string& uid) override;

 private:
  void showProgress(const std::string& member, const wire::TallyWire& tally, const std::optional<std::string>& uid);
  void endProgressLine();

  const bool countOnly_;
  const bool json_;
  const bool terminal_;
  std::ostream& out_;
  std::ostream& err_;
  QSClientSession* session_ = nullptr;
  std::map<std::string, Followed> followed_;
  std::chrono::steady_clock::time_point lastNews_;
  bool progressLineOpen_ = false;
};

// Totals of one view of a tally: [files, bytes] over every category.
struct TallyTotals {
  int64_t files = 0;
  int64_t bytes = 0;
};
TallyTotals totalsOf(const wire::TallyViewWire& view);
// "12.3 MB"
std::string humanBytes(int64_t bytes);

}  // namespace skerrowctl
