// A pause that ends early when woken.  A stage thread with nothing to do
// sleeps on it for its polling interval; whoever hands the thread work (or
// asks it to stop) wakes it, so the work starts at once instead of at the
// next poll.  A wake that comes while nobody sleeps is kept for the next
// sleep, so work handed over just before the thread goes to sleep is not
// left waiting a full interval.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

class QSIdleWait {
 public:
  // Sleeps up to `microseconds`; returns at once if woken since the last sleep.
  void sleep(uint32_t microseconds);
  // Ends the current sleep, or the next one if none is under way.
  void wake();

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  bool woken_ = false;
};
