// Runs an SdEventRunLoop that stops on SIGTERM while eight threads hand it
// work (half of them plain posts, half waiting hand-overs), then prints what
// happened, one "key value" per line, for the test that sends the signal:
//   started, finished     tasks begun and completed
//   plain_accepted/refused plain posts the loop took / turned away
//   waits_ran, waits_false waiting hand-overs that ran / answered false
//   left                   queued tasks the loop never started (run's answer)
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "platform/SdEventRunLoop.h"

int main() {
  platform::SdEventRunLoop loop(platform::SdEventRunLoop::Options{true});  // before any thread starts
  std::atomic<long> started{0}, finished{0}, plainAccepted{0}, plainRefused{0}, waitsRan{0}, waitsFalse{0};
  std::atomic<bool> quit{false};

  auto task = [&] {
    ++started;
    volatile long spin = 0;
    for (int i = 0; i < 2000; ++i) spin = spin + i;  // work that a stop must not cut short
    ++finished;
  };
  std::vector<std::thread> posters;
  for (int t = 0; t < 8; ++t)
    posters.emplace_back([&, t] {
      while (!quit) {
        bool ok;
        if (t % 2 == 0) {
          // Keep the queue short: a flood would only measure memory, not the stop.
          while (!quit && loop.pendingTaskCount() > 1000) std::this_thread::yield();
          ok = loop.post(task);
          ++(ok ? plainAccepted : plainRefused);
        } else {
          ok = loop.postAndWait(task);
          ++(ok ? waitsRan : waitsFalse);
        }
        if (!ok) std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });

  loop.addOneShotTimer(0.05, [] {
    std::printf("ready\n");
    std::fflush(stdout);
  });
  const size_t left = loop.run();
  quit = true;
  for (auto& p : posters) p.join();
  std::printf("signal %d\nstarted %ld\nfinished %ld\nplain_accepted %ld\nplain_refused %ld\n", loop.stoppedBySignal(),
              started.load(), finished.load(), plainAccepted.load(), plainRefused.load());
  std::printf("waits_ran %ld\nwaits_false %ld\nleft %zu\n", waitsRan.load(), waitsFalse.load(), left);
  return 0;
}
