#include "platform/SdEventRunLoop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <systemd/sd-event.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

#include "platform/Exception.h"

namespace platform {

struct SdEventRunLoop::Source {
  SdEventRunLoop* loop;
  SourceId id;
  sd_event_source* source = nullptr;
  sd_event_source* deadline = nullptr;  // io sources: the companion time source
  std::shared_ptr<Task> task;
  double interval = 0;  // repeating timers
  uint64_t due = 0;
  IoPrepare prepare;
  std::shared_ptr<IoHandler> handler;
};

struct SdEventRunLoop::Waiter {
  std::mutex mutex;
  std::condition_variable changed;
  enum class State { Pending, Ran, Dropped } state = State::Pending;

  void settle(State s) {
    std::lock_guard<std::mutex> lock(mutex);
    state = s;
    changed.notify_all();
  }
};

namespace {

uint64_t monotonicMicroseconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

uint64_t toMicroseconds(double seconds) {
  if (!(seconds > 0)) return 0;
  return static_cast<uint64_t>(std::llround(seconds * 1e6));
}

void check(int r, const char* what) {
  if (r < 0) Exception::raise(kInternalInconsistencyException, "%s failed: %s", what, std::strerror(-r));
}

}  // namespace

SdEventRunLoop::SdEventRunLoop() : SdEventRunLoop(Options{}) {}

template <class Body>
void SdEventRunLoop::guarded(Body&& body) noexcept {
  try {
    body();
  } catch (...) {
    if (!escaped_) escaped_ = std::current_exception();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopRequested_ = true;
    }
    sd_event_exit(event_, 0);
  }
}

SdEventRunLoop::SdEventRunLoop(Options options) {
  check(sd_event_new(&event_), "sd_event_new");
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) check(-errno, "eventfd");
  check(sd_event_add_io(event_, &wakeSource_, wakeFd_, EPOLLIN, &SdEventRunLoop::onWake, this), "sd_event_add_io");
  if (options.handleTerminationSignals) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    check(sd_event_add_signal(event_, &signalSources_[0], SIGTERM, &SdEventRunLoop::onSignal, this),
          "sd_event_add_signal");
    check(sd_event_add_signal(event_, &signalSources_[1], SIGINT, &SdEventRunLoop::onSignal, this),
          "sd_event_add_signal");
  }
}

SdEventRunLoop::~SdEventRunLoop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    for (Posted& p : posted_)
      if (p.waiter) p.waiter->settle(Waiter::State::Dropped);
    posted_.clear();
  }
  for (auto& [id, s] : sources_) {
    sd_event_source_disable_unref(s->source);
    sd_event_source_disable_unref(s->deadline);
  }
  sources_.clear();
  for (auto*& s : signalSources_) s = sd_event_source_disable_unref(s);
  sd_event_source_disable_unref(wakeSource_);
  if (wakeFd_ >= 0) close(wakeFd_);
  sd_event_unref(event_);
}

double SdEventRunLoop::now() const { return static_cast<double>(monotonicMicroseconds()) / 1e6; }

SdEventRunLoop::Source* SdEventRunLoop::find(SourceId id) {
  auto it = sources_.find(id);
  return it == sources_.end() ? nullptr : it->second.get();
}

RunLoop::SourceId SdEventRunLoop::addTimer(double delay, double interval, Task task) {
  requireLoopThread("Adding a timer");
  auto s = std::make_unique<Source>();
  s->loop = this;
  s->id = nextId_++;
  s->task = std::make_shared<Task>(std::move(task));
  s->interval = interval;
  s->due = monotonicMicroseconds() + toMicroseconds(delay);
  check(sd_event_add_time(event_, &s->source, CLOCK_MONOTONIC, s->due, kTimerAccuracyMicroseconds,
                          &SdEventRunLoop::onTimer, s.get()),
        "sd_event_add_time");
  const SourceId id = s->id;
  sources_.emplace(id, std::move(s));
  return id;
}

RunLoop::SourceId SdEventRunLoop::addRepeatingTimer(double interval, Task task) {
  if (!(interval > 0)) Exception::raise(kInvalidArgumentException, "a repeating timer needs a positive interval");
  return addTimer(interval, interval, std::move(task));
}

RunLoop::SourceId SdEventRunLoop::addOneShotTimer(double delay, Task task) { return addTimer(delay, 0, std::move(task)); }

void SdEventRunLoop::removeSource(SourceId id) {
  requireLoopThread("Removing a source");
  auto it = sources_.find(id);
  if (it == sources_.end()) return;
  sd_event_source_disable_unref(it->second->source);
  sd_event_source_disable_unref(it->second->deadline);
  sources_.erase(it);
}

int SdEventRunLoop::onTimer(sd_event_source*, uint64_t, void* userdata) {
  auto* s = static_cast<Source*>(userdata);
  SdEventRunLoop* loop = s->loop;
  const SourceId id = s->id;
  const std::shared_ptr<Task> task = s->task;
  if (s->interval > 0) {
    // Keep the rhythm of the first due time; a late timer fires once and skips the periods it missed.
    const uint64_t period = std::max<uint64_t>(1, toMicroseconds(s->interval));
    const uint64_t now = monotonicMicroseconds();
    s->due += period;
    if (s->due <= now) s->due += ((now - s->due) / period + 1) * period;
    sd_event_source_set_time(s->source, s->due);
    sd_event_source_set_enabled(s->source, SD_EVENT_ON);
  }
  loop->guarded([&] { (*task)(); });
  if (Source* still = loop->find(id); still && still->interval == 0) loop->removeSource(id);
  return 0;
}

RunLoop::SourceId SdEventRunLoop::addIoSource(int fd, IoPrepare prepare, IoHandler handler) {
  requireLoopThread("Adding an io source");
  auto s = std::make_unique<Source>();
  s->loop = this;
  s->id = nextId_++;
  s->prepare = std::move(prepare);
  s->handler = std::make_shared<IoHandler>(std::move(handler));
  check(sd_event_add_io(event_, &s->source, fd, 0, &SdEventRunLoop::onIo, s.get()), "sd_event_add_io");
  check(sd_event_source_set_prepare(s->source, &SdEventRunLoop::onIoPrepare), "sd_event_source_set_prepare");
  check(sd_event_add_time(event_, &s->deadline, CLOCK_MONOTONIC, UINT64_MAX, 1, &SdEventRunLoop::onIoDeadline,
                          s.get()),
        "sd_event_add_time");
  sd_event_source_set_enabled(s->deadline, SD_EVENT_OFF);
  const SourceId id = s->id;
  sources_.emplace(id, std::move(s));
  return id;
}

int SdEventRunLoop::onIoPrepare(sd_event_source*, void* userdata) {
  auto* s = static_cast<Source*>(userdata);
  IoInterest interest{0x001 /* POLLIN */, std::nullopt};
  if (s->prepare) s->loop->guarded([&] { interest = s->prepare(); });
  sd_event_source_set_io_events(s->source, interest.events);
  if (interest.deadline) {
    sd_event_source_set_time(s->deadline, toMicroseconds(*interest.deadline));
    sd_event_source_set_enabled(s->deadline, SD_EVENT_ONESHOT);
  } else {
    sd_event_source_set_enabled(s->deadline, SD_EVENT_OFF);
  }
  return 0;
}

int SdEventRunLoop::onIo(sd_event_source*, int, uint32_t revents, void* userdata) {
  auto* s = static_cast<Source*>(userdata);
  const std::shared_ptr<IoHandler> handler = s->handler;
  s->loop->guarded([&] { (*handler)(revents); });
  return 0;
}

int SdEventRunLoop::onIoDeadline(sd_event_source*, uint64_t, void* userdata) {
  auto* s = static_cast<Source*>(userdata);
  const std::shared_ptr<IoHandler> handler = s->handler;
  s->loop->guarded([&] { (*handler)(0); });
  return 0;
}

int SdEventRunLoop::onSignal(sd_event_source*, const ::signalfd_siginfo* info, void* userdata) {
  auto* loop = static_cast<SdEventRunLoop*>(userdata);
  loop->stopSignal_ = static_cast<int>(info->ssi_signo);
  loop->stop();
  return 0;
}

// The loop is woken only when the queue turns non-empty: while it holds
// tasks, a wake-up is already pending, or the loop is running them and wakes
// itself again for whatever is left when its pass ends.
bool SdEventRunLoop::enqueue(Task task, std::shared_ptr<Waiter> waiter) {
  bool wasEmpty;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return false;
    wasEmpty = posted_.empty();
    posted_.push_back(Posted{std::move(task), std::move(waiter)});
  }
  if (wasEmpty) wake();
  return true;
}

void SdEventRunLoop::wake() {
  const uint64_t one = 1;
  ssize_t ignored = write(wakeFd_, &one, sizeof one);
  (void)ignored;  // EAGAIN only when the counter is saturated, and then the loop is awake anyway
}

bool SdEventRunLoop::post(Task task) { return enqueue(std::move(task), nullptr); }

bool SdEventRunLoop::postAndWait(Task task) {
  if (isLoopThread()) {
    task();
    return true;
  }
  auto waiter = std::make_shared<Waiter>();
  if (!enqueue(std::move(task), waiter)) return false;
  std::unique_lock<std::mutex> lock(waiter->mutex);
  waiter->changed.wait(lock, [&] { return waiter->state != Waiter::State::Pending; });
  return waiter->state == Waiter::State::Ran;
}

void SdEventRunLoop::nextPass(Task task) {
  requireLoopThread("Deferring to the next pass");
  enqueue(std::move(task), nullptr);
}

int SdEventRunLoop::onWake(sd_event_source*, int fd, uint32_t, void* userdata) {
  uint64_t count;
  ssize_t ignored = read(fd, &count, sizeof count);
  (void)ignored;
  static_cast<SdEventRunLoop*>(userdata)->runPostedTasks();
  return 0;
}

void SdEventRunLoop::runPostedTasks() {
  // Run the tasks that were queued when this pass began; later ones wait for
  // the next pass, so timers and io are not starved by a busy poster.
  size_t budget;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    budget = posted_.size();
  }
  for (; budget > 0; --budget) {
    Posted next;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopRequested_ || posted_.empty()) break;
      next = std::move(posted_.front());
      posted_.pop_front();
    }
    guarded([&] { next.task(); });
    next.task = nullptr;
    if (next.waiter) next.waiter->settle(Waiter::State::Ran);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopRequested_)
    sd_event_exit(event_, 0);
  else if (!posted_.empty())
    wake();
}

size_t SdEventRunLoop::run() {
  requireLoopThread("Running the loop");
  bool alreadyStopped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    alreadyStopped = stopRequested_ || stopped_;
  }
  if (!alreadyStopped) sd_event_loop(event_);
  std::deque<Posted> left;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    left.swap(posted_);
  }
  for (Posted& p : left)
    if (p.waiter) p.waiter->settle(Waiter::State::Dropped);
  if (escaped_) std::rethrow_exception(std::exchange(escaped_, nullptr));
  return left.size();
}

void SdEventRunLoop::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopRequested_ = true;
  }
  if (isLoopThread())
    sd_event_exit(event_, 0);
  else
    wake();
}

size_t SdEventRunLoop::pendingTaskCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return posted_.size();
}

}  // namespace platform
