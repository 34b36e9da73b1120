// Threads of the engine: detached threads that run one operation, with a
// thread object per thread (also for the main thread and any thread not
// started here), a per-thread dictionary, and a cancel flag that other
// threads may set and the thread's own code polls.
//
// An exception that escapes an operation ends that thread only: it is logged
// ("Thread <name> ended by exception <name>: <reason>"), the rest of the
// process goes on.
#pragma once

#include <any>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/ThreadSafeDictionary.h"

namespace platform {

class OVThread : public std::enable_shared_from_this<OVThread> {
 public:
  using Operation = std::function<void()>;

  // Starts a detached thread running `operation`; answers its thread object.
  static std::shared_ptr<OVThread> detachNewThread(Operation operation, std::string name = "");

  // Runs (target->*selector)(argument) on a new detached thread.  The target
  // is kept alive until the operation returns.
  template <class Target, class Argument>
  static std::shared_ptr<OVThread> detachNewThreadSelector_toTarget_withObject(
      void (Target::*selector)(Argument), std::shared_ptr<Target> target, Argument argument) {
    return detachNewThread([selector, target = std::move(target), argument = std::move(argument)]() mutable {
      ((*target).*selector)(std::move(argument));
    });
  }

  // The thread object of the calling thread (made on first use for threads
  // not started by detachNewThread, the main thread among them).
  static std::shared_ptr<OVThread> currentThread();
  // Marks the calling thread as the process's main thread (called once, early in main).
  static void markCurrentAsMainThread();
  static bool isMainThread();

  // The per-thread dictionary; safe to use from any thread.
  ThreadSafeDictionary<std::string, std::any>& threadDictionary() { return dictionary_; }

  void cancel() { cancelled_.store(true); }
  bool isCancelled() const { return cancelled_.load(); }

  const std::string& name() const { return name_; }
  bool isFinished() const;
  // Waits until the thread's operation has returned; false on time-out.
  bool waitUntilFinished(std::chrono::milliseconds timeout) const;

  struct Passkey {
    explicit Passkey() = default;
  };
  OVThread(Passkey, std::string name);

 private:
  void finish();

  std::string name_;
  ThreadSafeDictionary<std::string, std::any> dictionary_;
  std::atomic<bool> cancelled_{false};
  mutable std::mutex mutex_;
  mutable std::condition_variable finishedChanged_;
  bool finished_ = false;
};

}  // namespace platform
