// A signed 64-bit counter guarded by its own lock: every read, write and
// copy of the value holds it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "Engine/records/QSCoder.h"

class QSAtomicInteger {
 public:
  static constexpr const char* kClassName = "QSAtomicInteger";

  explicit QSAtomicInteger(int64_t value = 0) : value_(value) {}
  static std::shared_ptr<QSAtomicInteger> initWithValue(int64_t value) {
    return std::make_shared<QSAtomicInteger>(value);
  }
  // Port coding: one signed 64-bit integer.
  static std::shared_ptr<QSAtomicInteger> initWithCoder(QSDecoder& coder);
  void encodeWithCoder(QSEncoder& coder) const { coder.encodeInt64(value()); }

  int64_t value() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }
  void setValue(int64_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    value_ = value;
  }
  // Adds `delta` in one step under the lock (no update is lost to a
  // concurrent increase); answers the new value.
  int64_t addValue(int64_t delta) {
    std::lock_guard<std::mutex> lock(mutex_);
    value_ = static_cast<int64_t>(static_cast<uint64_t>(value_) + static_cast<uint64_t>(delta));
    return value_;
  }
  // A new integer with the current value, read under the lock.
  std::shared_ptr<QSAtomicInteger> mutableCopy() const { return initWithValue(value()); }

 private:
  mutable std::mutex mutex_;
  int64_t value_;
};
