// Who a pipeline token reports to when a stage has finished with it (the
// engine server).  The environment's type says which stage it was, so the
// delegate needs no type switch.
//
// Both calls run on the stage's thread, with the token registered as the
// thread's current runnable; they must not block on the main thread.
#pragma once

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
};
