// A run loop on a manual clock, for tests of scheduling logic: time moves
// only when the test calls advanceBy, which fires the due timers in time
// order and runs the posted work between them.  Posting from other threads
// works as in the real loop; `run` serves posted work until `stop`.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "platform/RunLoop.h"

namespace platform {

class ManualRunLoop : public RunLoop {
 public:
  explicit ManualRunLoop(double startTime = 1000.0);
  ~ManualRunLoop() override;

  double now() const override;
  SourceId addRepeatingTimer(double interval, Task task) override;
  SourceId addOneShotTimer(double delay, Task task) override;
  void removeSource(SourceId id) override;
  bool post(Task task) override;
  bool postAndWait(Task task) override;
  void nextPass(Task task) override;
  SourceId addIoSource(int fd, IoPrepare prepare, IoHandler handler) override;
  size_t run() override;
  void stop() override;

  // Moves the clock forward, firing each timer that falls due on the way (at
  // its due time) and running posted work after each.  Loop thread only.
  void advanceBy(double seconds);
  // Runs the work posted so far (not what that work posts).  Answers how many tasks ran.
  size_t runPending();
  // Calls an io source's handler as if the descriptor were ready.
  void triggerIo(SourceId id, uint32_t revents);
  size_t timerCount() const { return timers_.size(); }

 private:
  struct Timer {
    double due;
    double interval;
    std::shared_ptr<Task> task;
  };
  struct Posted {
    Task task;
    std::shared_ptr<int> state;  // 0 pending, 1 ran, 2 dropped; guarded by mutex_
  };

  double clock_;
  SourceId nextId_ = 1;
  std::map<SourceId, Timer> timers_;
  std::map<SourceId, std::shared_ptr<IoHandler>> io_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Posted> posted_;
  bool stopRequested_ = false;
  bool stopped_ = false;
};

}  // namespace platform
