// A dictionary whose every operation is atomic with respect to the others:
// the thread-safe accessors `threadSafeObjectForKey`,
// `threadSafeSetObject_forKey` and `threadSafeRemoveObjectForKey`, plus the
// few whole-table operations the system needs (snapshot, count, clear).
//
// Values are returned by copy (typically shared pointers), so a caller never
// holds a reference into the table after the lock is released.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

namespace platform {

template <class Key, class Value>
class ThreadSafeDictionary {
 public:
  ThreadSafeDictionary() = default;
  ThreadSafeDictionary(const ThreadSafeDictionary& other) : map_(other.snapshot()) {}
  ThreadSafeDictionary& operator=(const ThreadSafeDictionary& other) {
    if (this != &other) {
      auto copy = other.snapshot();
      std::lock_guard<std::mutex> lock(mutex_);
      map_ = std::move(copy);
    }
    return *this;
  }
  explicit ThreadSafeDictionary(std::map<Key, Value> contents) : map_(std::move(contents)) {}

  std::optional<Value> threadSafeObjectForKey(const Key& key) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = map_.find(key);
    if (it == map_.end()) return std::nullopt;
    return it->second;
  }

  // Calls `use` with the value under the key, under the lock, without a
  // copy; answers whether the key was present.  `use` must not call back
  // into this dictionary.
  template <class Use>
  bool withObjectForKey(const Key& key, Use&& use) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = map_.find(key);
    if (it == map_.end()) return false;
    use(it->second);
    return true;
  }

  void threadSafeSetObject_forKey(Value value, const Key& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    map_.insert_or_assign(key, std::move(value));
  }

  // Inserts only when the key is absent; answers the value now under the key.
  Value threadSafeSetObjectIfAbsent_forKey(Value value, const Key& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto [it, inserted] = map_.try_emplace(key, std::move(value));
    return it->second;
  }

  void threadSafeRemoveObjectForKey(const Key& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    map_.erase(key);
  }

  std::map<Key, Value> snapshot() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return map_;
  }

  std::vector<Key> allKeys() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Key> keys;
    keys.reserve(map_.size());
    for (const auto& [k, v] : map_) keys.push_back(k);
    return keys;
  }

  size_t count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return map_.size();
  }

  void removeAllObjects() {
    std::lock_guard<std::mutex> lock(mutex_);
    map_.clear();
  }

  void replaceContents(std::map<Key, Value> contents) {
    std::lock_guard<std::mutex> lock(mutex_);
    map_ = std::move(contents);
  }

 private:
  mutable std::mutex mutex_;
  std::map<Key, Value> map_;
};

}  // namespace platform
