// A first-in first-out queue safe from several threads.  Its lock is
// recursive and can be held across several operations
// (acquireQueueLock / releaseQueueLock) to make them one step.
#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <optional>

namespace platform {

template <class T>
class OVQueue {
 public:
  void enqueue(T value) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    items_.push_back(std::move(value));
  }
  // Removes and answers the first element; nothing when empty.
  std::optional<T> dequeue() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (items_.empty()) return std::nullopt;
    T value = std::move(items_.front());
    items_.pop_front();
    return value;
  }
  // The first element without removing it; nothing when empty.
  std::optional<T> front() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (items_.empty()) return std::nullopt;
    return items_.front();
  }
  size_t count() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    return items_.size();
  }
  void removeAllObjects() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    items_.clear();
  }
  // Calls `callback` with each element, in order, under the queue's lock.
  void enumerate(const std::function<void(T&)>& callback) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (T& item : items_) callback(item);
  }
  // Removes the elements for which `predicate` answers true; answers how many.
  size_t removeIf(const std::function<bool(const T&)>& predicate) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    const size_t before = items_.size();
    std::erase_if(items_, predicate);
    return before - items_.size();
  }

  void acquireQueueLock() const { mutex_.lock(); }
  void releaseQueueLock() const { mutex_.unlock(); }

 private:
  mutable std::recursive_mutex mutex_;
  std::deque<T> items_;
};

}  // namespace platform
