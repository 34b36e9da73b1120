// Lock-guarded holders for values that several threads read and write (the
// fields of a per-destination environment).  Each holder owns one mutex and
// never takes another lock while holding it.
#pragma once

#include <memory>
#include <mutex>

// A value (bool or 32-bit integer), zero until set.
template <class T>
class atomic {
 public:
  void set(T value) {
    std::lock_guard<std::mutex> lock(mutex_);
    value_ = value;
  }
  T get() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

// An owned object (string, category set, mutable tally), none until set.
// `set` keeps the new object and drops the old one.  `get` answers a
// reference of its own, so the object stays valid for the caller even if
// another thread sets a new one meanwhile.
template <class T>
class retained_atomic_ptr {
 public:
  void set(std::shared_ptr<T> value) {
    std::shared_ptr<T> old;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      old = std::move(value_);
      value_ = std::move(value);
    }
    // `old` is released here, outside the lock.
  }
  std::shared_ptr<T> get() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<T> value_;
};
