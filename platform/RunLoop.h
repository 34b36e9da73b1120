// A thread's event loop: timers, work handed over from other threads,
// calls deferred to the next pass, and file-descriptor sources.
//
// A loop belongs to the thread that created it; it runs there, one callback
// at a time, and every callback runs to completion before the next one
// starts.  Only `post`, `postAndWait` and `stop` may be called from other
// threads; timers and io sources are added and removed on the loop's own
// thread (anything else raises platform::Exception).
//
// Two implementations: SdEventRunLoop (sd-event, the real one) and
// ManualRunLoop (a manual clock, for tests of scheduling logic).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace platform {

class RunLoop {
 public:
  using Task = std::function<void()>;
  using SourceId = uint64_t;

  // What an io source wants to wait for next: poll(2) events and an
  // optional absolute deadline on the loop's clock (seconds).
  struct IoInterest {
    uint32_t events = 0;
    std::optional<double> deadline;
  };
  // Called before each wait of the loop; answers the current interest.
  using IoPrepare = std::function<IoInterest()>;
  // Called when the descriptor is ready (with the returned poll events) or
  // the deadline has passed (with 0).
  using IoHandler = std::function<void(uint32_t revents)>;

  virtual ~RunLoop();

  // The loop of the calling thread (the one created on it), or nullptr.
  static RunLoop* current();
  // The process's main loop (set by whoever runs it), or nullptr.
  static RunLoop* main();
  static void setMain(RunLoop* loop);

  // Seconds on the loop's monotonic clock.
  virtual double now() const = 0;

  // A timer that fires every `interval` seconds, first `interval` from now.
  // A late timer fires once and then keeps its original rhythm.
  virtual SourceId addRepeatingTimer(double interval, Task task) = 0;
  // A timer that fires once, `delay` seconds from now.
  virtual SourceId addOneShotTimer(double delay, Task task) = 0;
  virtual void removeSource(SourceId id) = 0;

  // Runs `task` on the loop's thread, after what was posted before it.
  // From any thread; tasks posted by one thread run in the order posted.
  // Answers false when the loop has stopped and will not run it.
  virtual bool post(Task task) = 0;
  // Runs `task` on the loop's thread and returns after it ran.  On the
  // loop's own thread it runs at once.  Answers false (without running it)
  // when the loop stopped before it could run.
  virtual bool postAndWait(Task task) = 0;
  // Runs `task` on the next pass of the loop; never inline.  Loop thread only.
  virtual void nextPass(Task task) = 0;

  // Watches `fd`: `prepare` is asked before every wait, `handler` called on readiness.
  virtual SourceId addIoSource(int fd, IoPrepare prepare, IoHandler handler) = 0;

  // Runs until `stop`; answers the number of posted tasks that were left unrun.
  virtual size_t run() = 0;
  // Ends `run` after the callback under way; from any thread.
  virtual void stop() = 0;

  bool isLoopThread() const;

 protected:
  RunLoop();
  // Raises unless called on the loop's thread.
  void requireLoopThread(const char* operation) const;

 private:
  const void* ownerThread_;
};

}  // namespace platform
