// Follows backups (or counts) of the user while the engine runs them.
//
// Progress: the engine lends the tally of the phase under way by reference
// with each callback; the follower keeps the reference and reads it again
// every quarter of a second, so the progress line moves while the engine
// copies (the engine's own "computing" callbacks may be far apart).  On a
// terminal the line is redrawn in place (see ProgressLine); elsewhere one
// final line per phase is written; with JSON output each phase's start and
// end is one event line and, while a phase runs, a "progress" event is
// written at most once a second.
//
// The end: the engine records an outcome for every backup or count that
// ends, with a sequence number that grows with every outcome.  The follower
// notes each backup's sequence before it starts it and asks the engine for
// the outcome once a second (and at once after the last callback of the
// run); an outcome of the same kind with a larger sequence is the end of the
// run it follows, whether it completed, failed copies, was stopped or was
// cancelled by anyone.  So a cancel from another shell is learnt within
// about a second, without changing the engine's callbacks.
//
// Single-threaded, like the session: callbacks arrive while `follow` lets
// the engine link serve, and everything runs on that thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Engine/records/QSBackupOutcome.h"
#include "client/QSClientCallbacks.h"
#include "ipc/WireTypes.h"
#include "tools/skerrowctl/ProgressLine.h"

namespace skerrowctl {

// What the follower needs of the engine: the session answers it over the
// bus; unit tests answer it themselves.  Calls may raise sdbus::Error.
class FollowedEngine {
 public:
  virtual ~FollowedEngine() = default;
  // A snapshot of a lent tally, or nothing when it cannot be read any more.
  virtual std::optional<wire::TallyWire> readTally(const QSTallyReference& reference) = 0;
  // The last outcome the engine recorded for a backup, if any.
  virtual std::optional<QSBackupOutcome> outcomeForBackup(const std::string& uid) = 0;
  // Serves the engine's callbacks for at most `timeout`, or until `done`.
  virtual void serve(std::chrono::milliseconds timeout, const std::function<bool()>& done) = 0;
  // Seconds on a steady clock.
  virtual double now() = 0;
};

class BackupFollower : public QSClientCallbacks {
 public:
  struct Target {
    std::string uid;
    uint64_t sequenceBefore = 0;  // the sequence of the backup's last outcome before the run (0: none)
  };
  struct Followed {
    std::string uid;
    uint64_t sequenceBefore = 0;
    std::optional<QSBackupOutcome> outcome;  // the end of the followed run
    std::optional<wire::TallyWire> tally;    // the last snapshot read
    int64_t errorsSeen = 0;                  // copy errors the engine sent
    bool stopSeen = false;                   // stoppedDueToErrorsForBackup arrived
    bool lastCallbackSeen = false;           // finishedTransferTally (finishedDestinationTally for a count)
  };
  struct Output {
    bool json = false;
    bool terminal = false;       // redraw one line in place
    size_t width = 80;           // the terminal's columns
    size_t maximumErrorLines = 20;  // copy errors shown one by one before they are only counted
  };
  // Called once, at the end of the destination count of a backup, with
  // what it expects to copy: the caller may warn about free space.
  using ExpectedHandler = std::function<void(const std::string& uid, const TallyTotals& expected)>;

  BackupFollower(std::vector<Target> targets, QSBackupOutcome::Kind kind, Output output, std::ostream& out,
                 std::ostream& err);

  void setEngine(FollowedEngine* engine) { engine_ = engine; }
  void setExpectedHandler(ExpectedHandler handler) { expectedHandler_ = std::move(handler); }

  // Serves until every followed run has its outcome, `interrupted` turns
  // non-zero, or nothing was heard for `idle`; answers whether all ended.
  bool follow(std::chrono::seconds idle, const volatile int* interrupted);
  bool allEnded() const;
  const std::map<std::string, Followed>& results() const { return followed_; }

  // QSClientCallbacks.
  void tallyCallback(const std::string& member, const QSTallyReference& tally,
                     const std::optional<std::string>& uid) override;
  void copyError(const wire::ErrorWire& error) override;
  void stoppedDueToErrors(const std::string& uid) override;

  // Totals of one view of a tally.
  static TallyTotals totalsOf(const wire::TallyViewWire& view);

 private:
  // The phase being shown: which callback lent which tally, since when.
  struct Current {
    Phase phase = Phase::Source;
    std::optional<std::string> uid;
    QSTallyReference reference;
    double startedAt = 0;
    bool finished = false;
    std::optional<wire::TallyWire> tally;
  };

  void tick();
  void pollOutcomes();
  void redraw(bool final);
  void writeProgressEvent();
  ProgressSample sampleOf(const Current& current) const;
  void writePhaseEvent(const std::string& member, const std::optional<std::string>& uid, const wire::TallyWire& tally);
  void endLine();
  void noteCopyRate(double at, int64_t bytes);

  const QSBackupOutcome::Kind kind_;
  const Output output_;
  std::ostream& out_;
  std::ostream& err_;
  FollowedEngine* engine_ = nullptr;
  ExpectedHandler expectedHandler_;
  std::map<std::string, Followed> followed_;
  std::optional<Current> current_;
  double lastNews_ = 0;
  double nextRedraw_ = 0;
  double nextProgressEvent_ = 0;
  double nextPoll_ = 0;
  bool pollSoon_ = false;
  bool lineOpen_ = false;
  int64_t errorLines_ = 0;
  std::deque<std::pair<double, int64_t>> copySamples_;  // (time, bytes copied) of the last seconds
};

}  // namespace skerrowctl
