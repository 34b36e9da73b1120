// Cost of handing work to the main thread: a task posted from another
// thread and run by the loop (throughput), and a waiting hand-over (the
// round trip a worker pays for a synchronous call on the main thread).
#include <benchmark/benchmark.h>

#include <atomic>
#include <future>
#include <thread>

#include "platform/SdEventRunLoop.h"
#include "tests/support/LoopThread.h"

using skerrow_test::LoopThread;

// One post + run, measured over batches: the poster does not wait per task.
static void BM_HandOverPostAndRun(benchmark::State& state) {
  LoopThread lt;
  std::atomic<int64_t> ran{0};
  int64_t posted = 0;
  for (auto _ : state) {
    lt.loop().post([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
    ++posted;
  }
  lt.loop().postAndWait([] {});  // every task posted before has run
  if (ran.load() != posted) state.SkipWithError("tasks were lost");
  state.SetItemsProcessed(posted);
}
BENCHMARK(BM_HandOverPostAndRun)->UseRealTime();

// One waiting hand-over: post, run on the loop's thread, wake the poster.
static void BM_HandOverAndWait(benchmark::State& state) {
  LoopThread lt;
  int64_t ran = 0;
  for (auto _ : state) lt.loop().postAndWait([&ran] { ++ran; });
  state.SetItemsProcessed(ran);
}
BENCHMARK(BM_HandOverAndWait)->UseRealTime();
