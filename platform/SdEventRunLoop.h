// The real run loop: sd-event on the loop's thread.
//
// Work handed over from other threads goes into a locked queue and an
// eventfd wakes the loop; timers are CLOCK_MONOTONIC time sources with an
// accuracy of kTimerAccuracyMicroseconds (sd-event's default of 250 ms
// would let timers fire that late).  With `handleTerminationSignals`,
// SIGTERM and SIGINT stop the loop cleanly: the loop must then be created
// before any other thread is started, because the signals are blocked on
// the creating thread and only threads started afterwards inherit that.
//
// An exception that escapes a callback stops the loop and is raised again
// from `run` (as it would leave a loop that is not built on C code).
//
// When the loop stops, the callback under way finishes; posted tasks not yet
// started are never started: `run` answers their number, and threads
// waiting in postAndWait get false.
#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <mutex>

#include "platform/RunLoop.h"

struct sd_event;
struct signalfd_siginfo;
struct sd_event_source;

namespace platform {

class SdEventRunLoop : public RunLoop {
 public:
  static constexpr uint64_t kTimerAccuracyMicroseconds = 1000;

  struct Options {
    bool handleTerminationSignals = false;
  };

  SdEventRunLoop();
  explicit SdEventRunLoop(Options options);
  ~SdEventRunLoop() override;

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

  // Number of posted tasks waiting to run.
  size_t pendingTaskCount() const;
  // The signal that stopped the loop, or 0.
  int stoppedBySignal() const { return stopSignal_; }

  struct Source;
  struct Waiter;

 private:
  struct Posted {
    Task task;
    std::shared_ptr<Waiter> waiter;
  };

  static int onWake(sd_event_source*, int fd, uint32_t revents, void* userdata);
  static int onTimer(sd_event_source*, uint64_t usec, void* userdata);
  static int onSignal(sd_event_source*, const ::signalfd_siginfo* info, void* userdata);
  static int onIo(sd_event_source*, int fd, uint32_t revents, void* userdata);
  static int onIoPrepare(sd_event_source*, void* userdata);
  static int onIoDeadline(sd_event_source*, uint64_t usec, void* userdata);

  SourceId addTimer(double delay, double interval, Task task);
  // Runs a callback body, keeping an escaping exception for `run`.
  template <class Body>
  void guarded(Body&& body) noexcept;
  bool enqueue(Task task, std::shared_ptr<Waiter> waiter);
  void wake();
  void runPostedTasks();
  Source* find(SourceId id);

  sd_event* event_ = nullptr;
  int wakeFd_ = -1;
  sd_event_source* wakeSource_ = nullptr;
  sd_event_source* signalSources_[2] = {nullptr, nullptr};
  std::map<SourceId, std::unique_ptr<Source>> sources_;
  SourceId nextId_ = 1;
  int stopSignal_ = 0;
  std::exception_ptr escaped_;

  mutable std::mutex mutex_;
  std::deque<Posted> posted_;
  bool stopRequested_ = false;
  bool stopped_ = false;
};

}  // namespace platform
