// Date helpers of the backup records.
#pragma once

#include <cstdint>

#include "platform/Date.h"

// The File Manager's UTC date-time: seconds since 1904-01-01 00:00:00 UTC in
// 48 bits (high 16, low 32) plus a 16-bit binary fraction of a second.
struct UTCDateTime {
  uint16_t highSeconds = 0;
  uint32_t lowSeconds = 0;
  uint16_t fraction = 0;
};

// A new date at the receiver's seconds since 1970 plus `interval`.
platform::Date dateByAddingTimeInterval(platform::Date date, double interval);

// The date of a UTC date-time value.
platform::Date initWithUTCDateTime(const UTCDateTime& value);
