// Who a pipeline token reports to when a stage has finished with it (the
// engine server).  The environment's type says which stage it was, so the
// delegate needs no type switch.
//
// Both calls run on the stage's thread, with the token registered as the
// thread's current runnable; they must not block on the main thread.
#pragma once

struct QSBackupOutcome;
class QSToken;
class QSUserEnvironment;
class QSPerUIDEnvironment;

class QSTokenDelegate {
 public:
  virtual ~QSTokenDelegate() = default;

  // The first stage has counted the user's home folder for `token`; when the
  // token names a destination it carries its own copy of the tree and tally.
  virtual void runPerDestination(QSToken& token, QSUserEnvironment& environment) = 0;
  // The second stage has finished `token`'s work for its destination, and
  // the job was not cancelled.
  virtual void runPerDestination(QSToken& token, QSPerUIDEnvironment& environment) = 0;
  // The token's journey has ended, with how it went: its destination's job
  // completed (cleanly or with failed copies), was cancelled, or was stopped
  // after too many failures in a row; or the token was dropped by a cancel
  // before its job began.  It may be called while the canceller holds
  // pipeline locks: it only hands the outcome on (no client call, no wait).
  virtual void tokenDidEnd(QSToken& token, const QSBackupOutcome& outcome) = 0;
};
