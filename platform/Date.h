// A point in time: seconds since 2001-01-01 00:00:00 UTC (the reference date).
//
// Dates are plain values.  Equality is exact, as sub-second differences
// matter (file times are compared to the nanosecond where the file system
// keeps them).
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace platform {

class Date {
 public:
  // Seconds between 1970-01-01 and 2001-01-01.
  static constexpr double kTimeIntervalBetween1970AndReferenceDate = 978307200.0;
  // Seconds between 1904-01-01 (the File Manager's epoch) and 2001-01-01.
  static constexpr double kTimeIntervalBetween1904AndReferenceDate = 3061152000.0;

  constexpr Date() = default;
  constexpr explicit Date(double secondsSinceReferenceDate) : seconds_(secondsSinceReferenceDate) {}

  static Date now();
  static constexpr Date distantPast() { return Date(-63114076800.0); }
  static constexpr Date distantFuture() { return Date(63113904000.0); }
  static constexpr Date dateWithTimeIntervalSince1970(double seconds) {
    return Date(seconds - kTimeIntervalBetween1970AndReferenceDate);
  }

  constexpr double timeIntervalSinceReferenceDate() const { return seconds_; }
  constexpr double timeIntervalSince1970() const { return seconds_ + kTimeIntervalBetween1970AndReferenceDate; }
  constexpr double timeIntervalSinceDate(Date other) const { return seconds_ - other.seconds_; }
  constexpr Date addingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }

  // "2001-01-01 00:00:00 +0000": GMT, whole seconds, the Julian calendar
  // before 1582-10-15 as in the Foundation rendering (so the distant past
  // prints as "0001-01-01 00:00:00 +0000").
  std::string description() const;

  constexpr auto operator<=>(const Date&) const = default;
  constexpr bool operator==(const Date&) const = default;

 private:
  double seconds_ = 0.0;
};

}  // namespace platform
