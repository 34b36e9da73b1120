#include "Engine/support/QSDateAdditions.h"

platform::Date dateByAddingTimeInterval(platform::Date date, double interval) {
  return platform::Date::dateWithTimeIntervalSince1970(date.timeIntervalSince1970() + interval);
}

platform::Date initWithUTCDateTime(const UTCDateTime& value) {
  const uint64_t seconds = (static_cast<uint64_t>(value.highSeconds) << 32) | value.lowSeconds;
  const double since1904 = static_cast<double>(seconds) + static_cast<double>(value.fraction) / 65536.0;
  return platform::Date(since1904 - platform::Date::kTimeIntervalBetween1904AndReferenceDate);
}
