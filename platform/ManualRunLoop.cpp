#include "platform/ManualRunLoop.h"

#include "platform/Exception.h"

namespace platform {

ManualRunLoop::ManualRunLoop(double startTime) : clock_(startTime) {}

ManualRunLoop::~ManualRunLoop() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
  for (Posted& p : posted_)
    if (p.state) *p.state = 2;
  posted_.clear();
  changed_.notify_all();
}

double ManualRunLoop::now() const { return clock_; }

RunLoop::SourceId ManualRunLoop::addRepeatingTimer(double interval, Task task) {
  requireLoopThread("Adding a timer");
  if (!(interval > 0)) Exception::raise(kInvalidArgumentException, "a repeating timer needs a positive interval");
  const SourceId id = nextId_++;
  timers_[id] = Timer{clock_ + interval, interval, std::make_shared<Task>(std::move(task))};
  return id;
}

RunLoop::SourceId ManualRunLoop::addOneShotTimer(double delay, Task task) {
  requireLoopThread("Adding a timer");
  const SourceId id = nextId_++;
  timers_[id] = Timer{clock_ + (delay > 0 ? delay : 0), 0, std::make_shared<Task>(std::move(task))};
  return id;
}

void ManualRunLoop::removeSource(SourceId id) {
  requireLoopThread("Removing a source");
  timers_.erase(id);
  io_.erase(id);
}

bool ManualRunLoop::post(Task task) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) return false;
  posted_.push_back(Posted{std::move(task), nullptr});
  changed_.notify_all();
  return true;
}

bool ManualRunLoop::postAndWait(Task task) {
  if (isLoopThread()) {
    task();
    return true;
  }
  auto state = std::make_shared<int>(0);
  std::unique_lock<std::mutex> lock(mutex_);
  if (stopped_) return false;
  posted_.push_back(Posted{std::move(task), state});
  changed_.notify_all();
  changed_.wait(lock, [&] { return *state != 0; });
  return *state == 1;
}

void ManualRunLoop::nextPass(Task task) {
  requireLoopThread("Deferring to the next pass");
  post(std::move(task));
}

RunLoop::SourceId ManualRunLoop::addIoSource(int, IoPrepare, IoHandler handler) {
  requireLoopThread("Adding an io source");
  const SourceId id = nextId_++;
  io_[id] = std::make_shared<IoHandler>(std::move(handler));
  return id;
}

void ManualRunLoop::triggerIo(SourceId id, uint32_t revents) {
  auto it = io_.find(id);
  if (it == io_.end()) return;
  const auto handler = it->second;
  (*handler)(revents);
}

size_t ManualRunLoop::runPending() {
  requireLoopThread("Running posted work");
  size_t budget;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    budget = posted_.size();
  }
  size_t ran = 0;
  for (; budget > 0; --budget) {
    Posted next;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopRequested_ || posted_.empty()) break;
      next = std::move(posted_.front());
      posted_.pop_front();
    }
    struct Settle {
      ManualRunLoop* loop;
      std::shared_ptr<int> state;
      ~Settle() {
        if (!state) return;
        std::lock_guard<std::mutex> lock(loop->mutex_);
        *state = 1;  // it ran, even if it raised
        loop->changed_.notify_all();
      }
    } settle{this, next.state};
    ++ran;
    next.task();
  }
  return ran;
}

void ManualRunLoop::advanceBy(double seconds) {
  requireLoopThread("Advancing the clock");
  const double target = clock_ + (seconds > 0 ? seconds : 0);
  runPending();
  while (true) {
    auto next = timers_.end();
    for (auto it = timers_.begin(); it != timers_.end(); ++it)
      if (it->second.due <= target && (next == timers_.end() || it->second.due < next->second.due)) next = it;
    if (next == timers_.end()) break;
    clock_ = next->second.due;
    const auto task = next->second.task;
    if (next->second.interval > 0)
      next->second.due += next->second.interval;
    else
      timers_.erase(next);
    (*task)();
    runPending();
  }
  clock_ = target;
}

size_t ManualRunLoop::run() {
  requireLoopThread("Running the loop");
  while (true) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [&] { return stopRequested_ || !posted_.empty(); });
      if (stopRequested_) break;
    }
    runPending();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
  const size_t left = posted_.size();
  for (Posted& p : posted_)
    if (p.state) *p.state = 2;
  posted_.clear();
  changed_.notify_all();
  return left;
}

void ManualRunLoop::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopRequested_ = true;
  changed_.notify_all();
}

}  // namespace platform
