// Calls recorded on an object and replayed elsewhere: on a new background
// thread, on the main thread (waiting or not), after a delay or on the next
// pass of the current thread's run loop.
//
//   inBackground(server)->call(&QSSkerrowServer::saveBackupDatabase);
//   onMainAsync(server, true)->call(&QSSkerrowServer::finishBackupOnMainThreadForUID, uid);
//   invokeAfter(entry, 5.0)->call(&QSBackupEntry::setScheduled, true);
//
// The grabber keeps its target and the call's arguments (by value) until
// the call has run.  The call stack is saved when the grabber is made; when
// the replayed call raises platform::Exception, the grabber logs
// "SPInvocationGrabber's target raised <name>:\n\t<reason>\nInvocation was
// originally scheduled at:", prints the saved frames (from the fourth on) to
// standard output, and raises the exception again on the replaying thread.
#pragma once

#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <vector>

#include "platform/Object.h"

class SPInvocationGrabberBase : public platform::Object {
 public:
  static constexpr int kMaxFrames = 128;
  static constexpr int kSkippedFrames = 3;

  ~SPInvocationGrabberBase() override;

  // Runs the recorded call (if any), then drops the call and the target,
  // also when the call raises.
  void invoke();
  // invoke, on a background thread.
  void runInBackground();

  void saveBacktrace();
  void printBacktrace() const;
  int frameCount() const { return static_cast<int>(frames_.size()); }

  bool backgroundAfterForward() const { return backgroundAfterForward_; }
  void setBackgroundAfterForward(bool value) { backgroundAfterForward_ = value; }
  bool onMainAfterForward() const { return onMainAfterForward_; }
  void setOnMainAfterForward(bool value) { onMainAfterForward_ = value; }
  bool waitUntilDone() const { return waitUntilDone_; }
  void setWaitUntilDone(bool value) { waitUntilDone_ = value; }
  bool hasInvocation() const { return static_cast<bool>(invocation_); }

 protected:
  explicit SPInvocationGrabberBase(bool saveStack);
  // Keeps the call and dispatches it as the flags say.
  void forwardInvocation(std::function<void()> call);
  virtual void clearObject() = 0;

 private:
  std::function<void()> invocation_;
  std::vector<void*> frames_;
  bool backgroundAfterForward_ = false;
  bool onMainAfterForward_ = false;
  bool waitUntilDone_ = false;
};

template <class T>
class SPInvocationGrabber : public SPInvocationGrabberBase {
 public:
  struct Passkey {
    explicit Passkey() = default;
  };
  SPInvocationGrabber(Passkey, std::shared_ptr<T> object, bool saveStack)
      : SPInvocationGrabberBase(saveStack), object_(std::move(object)) {}

  static std::shared_ptr<SPInvocationGrabber> initWithObject_stacktraceSaving(std::shared_ptr<T> object,
                                                                             bool saveStack) {
    return std::make_shared<SPInvocationGrabber>(Passkey(), std::move(object), saveStack);
  }
  static std::shared_ptr<SPInvocationGrabber> initWithObject(std::shared_ptr<T> object) {
    return initWithObject_stacktraceSaving(std::move(object), true);
  }

  // Records `(object->*method)(args...)` with copies of the arguments and
  // dispatches it; the caller gets no return value.
  template <class R, class... Params, class... Args>
  void call(R (T::*method)(Params...), Args&&... args) {
    record(method, std::forward<Args>(args)...);
  }
  template <class R, class... Params, class... Args>
  void call(R (T::*method)(Params...) const, Args&&... args) {
    record(method, std::forward<Args>(args)...);
  }

  const std::shared_ptr<T>& object() const { return object_; }
  void setObject(std::shared_ptr<T> object) { object_ = std::move(object); }

 protected:
  void clearObject() override { object_.reset(); }

 private:
  template <class Method, class... Args>
  void record(Method method, Args&&... args) {
    forwardInvocation([target = object_, method, arguments = std::make_tuple(std::decay_t<Args>(std::forward<Args>(args))...)]() {
      std::apply([&](const auto&... a) { ((*target).*method)(a...); }, arguments);
    });
  }

  std::shared_ptr<T> object_;
};

// ---- The entry points on any object ----

template <class T>
std::shared_ptr<SPInvocationGrabber<T>> grab(std::shared_ptr<T> object) {
  return SPInvocationGrabber<T>::initWithObject(std::move(object));
}

// Replays on a new background thread as soon as the call is recorded.
template <class T>
std::shared_ptr<SPInvocationGrabber<T>> inBackground(std::shared_ptr<T> object) {
  auto grabber = grab(std::move(object));
  grabber->setBackgroundAfterForward(true);
  return grabber;
}

// Replays on the main thread; unless `async`, the caller waits until it ran
// (and on the main thread itself it runs at once).
template <class T>
std::shared_ptr<SPInvocationGrabber<T>> onMainAsync(std::shared_ptr<T> object, bool async) {
  auto grabber = grab(std::move(object));
  grabber->setOnMainAfterForward(true);
  grabber->setWaitUntilDone(!async);
  return grabber;
}

// Schedules a one-shot timer on the calling thread's run loop that replays
// the call after `seconds`; the timer keeps the grabber alive.  Raises when
// the calling thread has no run loop.
void scheduleGrabberOnCurrentRunLoop(const std::shared_ptr<SPInvocationGrabberBase>& grabber, double seconds);

template <class T>
std::shared_ptr<SPInvocationGrabber<T>> invokeAfter(std::shared_ptr<T> object, double seconds) {
  auto grabber = grab(std::move(object));
  scheduleGrabberOnCurrentRunLoop(grabber, seconds);
  return grabber;
}

// The next pass of the calling thread's run loop; never inline.
template <class T>
std::shared_ptr<SPInvocationGrabber<T>> nextRunloop(std::shared_ptr<T> object) {
  return invokeAfter(std::move(object), 0.0);
}
