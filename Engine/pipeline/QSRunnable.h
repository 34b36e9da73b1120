// A unit of work: a delegate (not owned), a one-argument operation of the
// delegate (the selector) and a context object (owned), run on the calling
// thread (`runWithObject`) or on a new thread (`spawnWithObject`).
//
// While `runWithObject` runs, the runnable is stored in the thread's
// dictionary under "runnable", so code called from the delegate finds it
// with `currentRunnable`; only that code may publish the runnable's product.
// The runnable is its own lock (a recursive monitor) for `state`, `product`
// and the context; the cancelled and finished flags are atomic.
#pragma once

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/Date.h"
#include "platform/OVThread.h"
#include "platform/Object.h"

class QSRunnable : public platform::Object {
 public:
  using Argument = std::shared_ptr<platform::Object>;
  template <class Delegate>
  using Selector = void (Delegate::*)(const Argument& object);

  struct Passkey {
    explicit Passkey() = default;
  };
  explicit QSRunnable(Passkey) {}

  template <class Delegate>
  static std::shared_ptr<QSRunnable> initWithDelegate_selector_context(Delegate* delegate, Selector<Delegate> selector,
                                                                       std::any context) {
    auto runnable = std::make_shared<QSRunnable>(Passkey());
    runnable->setDelegate_selector_context(delegate, selector, std::move(context));
    return runnable;
  }

  // Stores the delegate (not owned) and the selector; keeps the new context.
  template <class Delegate>
  void setDelegate_selector_context(Delegate* delegate, Selector<Delegate> selector, std::any context) {
    delegate_ = delegate;
    if (selector)
      selector_ = [selector](void* target, const Argument& object) { (static_cast<Delegate*>(target)->*selector)(object); };
    else
      selector_ = nullptr;
    context_ = std::move(context);
  }

  // Under the runnable's lock: a context may be replaced while another thread reads it.
  void setContext(std::any context);
  std::any context() const;

  // runWithObject with nothing.
  void run() { runWithObject(nullptr); }
  // On the calling thread: registers as the thread's current runnable, calls
  // the delegate's selector with `object` (when both are set), becomes
  // finished, and unregisters.  An exception from the delegate passes
  // through: the runnable is then not finished and stays registered.
  void runWithObject(const Argument& object);

  void spawn() { spawnWithObject(nullptr); }
  // Runs on a new thread; the delegate receives nothing there, whatever
  // `object` is.  Answers the new thread.
  std::shared_ptr<platform::OVThread> spawnWithObject(const Argument& object);
  void runOnSeparateThread(Argument ignored);

  // The runnable whose runWithObject is under way on the calling thread, or nullptr.
  static std::shared_ptr<QSRunnable> currentRunnable();
  static const char* threadDictionaryKey() { return "runnable"; }

  void cancel() { isCancelled_.store(true); }
  bool isCancelled() const { return isCancelled_.load(); }
  bool isFinished() const { return isFinished_.load(); }

  void setState(uint32_t state);
  uint32_t state() const;

  // Publishes a product; only from the thread now running this runnable
  // (from any other thread nothing happens).
  void setProduct(std::any product);
  std::any product() const;
  // Polls every 1,000 microseconds until a product is set or `date` has passed.
  std::any waitForProductUntilDate(platform::Date date) const;

 protected:
  // What runWithObject does around the delegate's call: registers as the
  // thread's current runnable, runs `body`, becomes finished, unregisters.
  // An exception from `body` leaves the runnable unfinished and registered.
  void runAsCurrent(const std::function<void()>& body);

  mutable std::recursive_mutex lock_;

 private:
  std::atomic<bool> isCancelled_{false};
  std::atomic<bool> isFinished_{false};
  uint32_t state_ = 0;
  std::any context_;
  std::any product_;
  void* delegate_ = nullptr;
  std::function<void(void*, const Argument&)> selector_;
};
