// The heartbeat record: the engine's clock when it was made.  `time` is the
// absolute time (seconds since 2001-01-01) and `date` the same instant as a
// date; a client compares them with its own clock to see that the engine is
// alive and how long a round trip takes.
#pragma once

#include <memory>

#include "Engine/records/QSCoder.h"
#include "platform/Date.h"

class TestObject {
 public:
  explicit TestObject(double time) : time_(time), date_(time) {}

  static std::shared_ptr<TestObject> initWithAbsoluteTime(double time) { return std::make_shared<TestObject>(time); }
  // A new record made from `time`.
  std::shared_ptr<TestObject> copy() const { return std::make_shared<TestObject>(time_); }

  double time() const { return time_; }
  platform::Date date() const { return date_; }

  // Writes `time` then `date`.  An exception raised while writing is logged
  // ("Exception <name>, <reason>") and not passed on.
  void encodeWithCoder(QSEncoder& coder) const;
  static std::shared_ptr<TestObject> initWithCoder(QSDecoder& coder);

 private:
  double time_;
  platform::Date date_;
};
