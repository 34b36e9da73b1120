#include "platform/Date.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace platform {
namespace {

struct Civil {
  int64_t year;
  unsigned month;
  unsigned day;
};

// Days since 1970-01-01 to a proleptic Gregorian date (H. Hinnant's algorithm).
Civil gregorianFromDays(int64_t z) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t y = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  return {y + (m <= 2), m, d};
}

// Days since 1970-01-01 to a Julian calendar date, through the Julian day number.
Civil julianFromDays(int64_t z) {
  const int64_t c = z + 2440588 + 32082;
  const int64_t d = (4 * c + 3) / 1461;
  const int64_t e = c - (1461 * d) / 4;
  const int64_t m = (5 * e + 2) / 153;
  Civil out;
  out.day = static_cast<unsigned>(e - (153 * m + 2) / 5 + 1);
  out.month = static_cast<unsigned>(m + 3 - 12 * (m / 10));
  out.year = d - 4800 + m / 10;
  return out;
}

// 1582-10-15, the first day of the Gregorian calendar, as days since 1970.
constexpr int64_t kGregorianCutover = -141427;

struct Split {
  int64_t days;
  int64_t secondOfDay;
};

Split splitUnixSeconds(double unixSeconds) {
  const double whole = std::floor(unixSeconds);
  // Keep far-out values representable; dates beyond these bounds are meaningless here.
  const double clamped = std::fmax(-1e15, std::fmin(1e15, std::isnan(whole) ? 0.0 : whole));
  const auto total = static_cast<int64_t>(clamped);
  int64_t days = total / 86400;
  int64_t rest = total % 86400;
  if (rest < 0) {
    rest += 86400;
    days -= 1;
  }
  return {days, rest};
}

}  // namespace

Date Date::now() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return dateWithTimeIntervalSince1970(static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9);
}

std::string Date::description() const {
  const Split s = splitUnixSeconds(timeIntervalSince1970());
  const Civil c = s.days >= kGregorianCutover ? gregorianFromDays(s.days) : julianFromDays(s.days);
  char buf[80];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02u %02lld:%02lld:%02lld +0000", static_cast<long long>(c.year), c.month,
                c.day, static_cast<long long>(s.secondOfDay / 3600), static_cast<long long>(s.secondOfDay / 60 % 60),
                static_cast<long long>(s.secondOfDay % 60));
  return buf;
}

}  // namespace platform
