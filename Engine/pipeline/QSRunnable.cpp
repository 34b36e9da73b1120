#include "Engine/pipeline/QSRunnable.h"

#include <chrono>
#include <thread>
#include <utility>

using platform::OVThread;

void QSRunnable::runWithObject(const Argument& object) {
  runAsCurrent([&] {
    if (delegate_ && selector_) selector_(delegate_, object);
  });
}

void QSRunnable::runAsCurrent(const std::function<void()>& body) {
  auto& dictionary = OVThread::currentThread()->threadDictionary();
  dictionary.threadSafeSetObject_forKey(std::any(self<QSRunnable>()), threadDictionaryKey());
  body();
  isFinished_.store(true);
  dictionary.threadSafeRemoveObjectForKey(threadDictionaryKey());
}

std::shared_ptr<OVThread> QSRunnable::spawnWithObject(const Argument& object) {
  return OVThread::detachNewThreadSelector_toTarget_withObject(&QSRunnable::runOnSeparateThread, self<QSRunnable>(),
                                                               object);
}

void QSRunnable::runOnSeparateThread(Argument) { run(); }

std::shared_ptr<QSRunnable> QSRunnable::currentRunnable() {
  auto stored = OVThread::currentThread()->threadDictionary().threadSafeObjectForKey(threadDictionaryKey());
  if (!stored) return nullptr;
  if (const auto* runnable = std::any_cast<std::shared_ptr<QSRunnable>>(&*stored)) return *runnable;
  return nullptr;
}

void QSRunnable::setContext(std::any context) {
  std::any old;
  std::lock_guard<std::recursive_mutex> lock(lock_);
  old = std::exchange(context_, std::move(context));
}

std::any QSRunnable::context() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return context_;
}

void QSRunnable::setState(uint32_t state) {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  state_ = state;
}

uint32_t QSRunnable::state() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return state_;
}

void QSRunnable::setProduct(std::any product) {
  if (currentRunnable().get() != this) return;
  std::any old;
  std::lock_guard<std::recursive_mutex> lock(lock_);
  old = std::move(product_);
  product_ = std::move(product);
}

std::any QSRunnable::product() const {
  std::lock_guard<std::recursive_mutex> lock(lock_);
  return product_;
}

std::any QSRunnable::waitForProductUntilDate(platform::Date date) const {
  while (true) {
    std::any current = product();
    if (current.has_value()) return current;
    if (!(date.timeIntervalSinceDate(platform::Date::now()) > 0.0)) return {};
    std::this_thread::sleep_for(std::chrono::microseconds(1000));
  }
}
