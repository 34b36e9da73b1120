#include "platform/OVThread.h"

#include <thread>

#include "platform/Exception.h"
#include "platform/Log.h"

namespace platform {
namespace {

thread_local std::shared_ptr<OVThread> tCurrent;
std::atomic<std::thread::id> gMainThreadId{};
std::atomic<uint64_t> gThreadCounter{0};

}  // namespace

OVThread::OVThread(Passkey, std::string name) : name_(std::move(name)) {}

std::shared_ptr<OVThread> OVThread::detachNewThread(Operation operation, std::string name) {
  if (name.empty()) name = "thread-" + std::to_string(++gThreadCounter);
  auto thread = std::make_shared<OVThread>(Passkey(), std::move(name));
  std::thread([thread, operation = std::move(operation)]() mutable {
    tCurrent = thread;
    try {
      operation();
    } catch (const Exception& e) {
      Log::format("Thread %s ended by exception %s: %s", thread->name().c_str(), e.name().c_str(),
                  e.reason().c_str());
    } catch (const std::exception& e) {
      Log::format("Thread %s ended by exception: %s", thread->name().c_str(), e.what());
    }
    operation = nullptr;  // release what the operation holds before announcing the end
    thread->finish();
    tCurrent.reset();
  }).detach();
  return thread;
}

std::shared_ptr<OVThread> OVThread::currentThread() {
  if (!tCurrent) tCurrent = std::make_shared<OVThread>(Passkey(), isMainThread() ? "main" : "foreign");
  return tCurrent;
}

void OVThread::markCurrentAsMainThread() { gMainThreadId.store(std::this_thread::get_id()); }

bool OVThread::isMainThread() { return gMainThreadId.load() == std::this_thread::get_id(); }

void OVThread::finish() {
  std::lock_guard<std::mutex> lock(mutex_);
  finished_ = true;
  finishedChanged_.notify_all();
}

bool OVThread::isFinished() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return finished_;
}

bool OVThread::waitUntilFinished(std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return finishedChanged_.wait_for(lock, timeout, [this] { return finished_; });
}

}  // namespace platform
