#include "tools/skerrowctl/Wording.h"

#include <cmath>
#include <ctime>
#include <regex>

#include <fmt/format.h>

namespace skerrowctl {

std::string grouped(int64_t number) {
  std::string digits = std::to_string(number < 0 ? -(number + 1) + 1ull : static_cast<unsigned long long>(number));
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return number < 0 ? "-" + out : out;
}

std::string countOf(int64_t number, const std::string& singular, const std::string& plural) {
  return grouped(number) + " " + (number == 1 ? singular : plural);
}

std::string humanBytes(int64_t bytes) {
  static const char* const units[] = {"B", "kB", "MB", "GB", "TB", "PB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (std::fabs(value) >= 999.95 && unit + 1 < std::size(units)) {
    value /= 1000;
    ++unit;
  }
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, units[unit]);
}

std::string humanRate(double bytesPerSecond) {
  return humanBytes(static_cast<int64_t>(std::llround(std::max(0.0, bytesPerSecond)))) + "/s";
}

std::string clockDuration(double seconds) {
  const int64_t total = static_cast<int64_t>(std::max(0.0, std::floor(seconds)));
  const int64_t h = total / 3600, m = total / 60 % 60, s = total % 60;
  return h > 0 ? fmt::format("{}:{:02}:{:02}", h, m, s) : fmt::format("{}:{:02}", m, s);
}

std::string wordedDuration(double seconds) {
  if (seconds < 10) return fmt::format("{:.1f} s", std::max(0.0, seconds));
  const int64_t total = std::llround(seconds);
  const int64_t h = total / 3600, m = total / 60 % 60, s = total % 60;
  if (h > 0) return fmt::format("{} h {} min", h, m);
  if (m > 0) return fmt::format("{} min {} s", m, s);
  return fmt::format("{} s", s);
}

std::string scheduleWords(bool scheduled, double periodSeconds) {
  if (!scheduled) return "off";
  struct Unit {
    double seconds;
    const char* one;
    const char* many;
  };
  static const Unit units[] = {{604800, "week", "weeks"}, {86400, "day", "days"}, {3600, "hour", "hours"},
                               {60, "minute", "minutes"}};
  // The engine's timer looks once a minute: a shorter period means each minute.
  if (periodSeconds <= 60) return "every minute";
  for (const Unit& unit : units) {
    const double count = periodSeconds / unit.seconds;
    if (count >= 1 && std::fabs(count - std::round(count)) < 1e-9) {
      const auto n = static_cast<int64_t>(std::llround(count));
      return n == 1 ? std::string("every ") + unit.one : fmt::format("every {} {}", n, unit.many);
    }
  }
  return "every " + wordedDuration(periodSeconds);
}

std::string keepsWords(uint32_t versionDepth) {
  const uint64_t kept = static_cast<uint64_t>(versionDepth) + 1;
  return fmt::format("keeps {} {}", grouped(static_cast<int64_t>(kept)), kept == 1 ? "version" : "versions");
}

std::string localDate(const platform::Date& date) {
  const time_t t = static_cast<time_t>(std::floor(date.timeIntervalSince1970()));
  struct tm local {};
  localtime_r(&t, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
  return text;
}

std::string isoDate(const platform::Date& date, bool fraction) {
  const double since1970 = date.timeIntervalSince1970();
  const double whole = std::floor(since1970);
  const time_t t = static_cast<time_t>(whole);
  struct tm utc {};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  if (!fraction) return std::string(text) + "Z";
  const int millis = std::min(999, static_cast<int>(std::floor((since1970 - whole) * 1000)));
  return fmt::format("{}.{:03}Z", text, millis);
}

std::optional<platform::Date> parseUserDate(const std::string& text) {
  std::smatch m;
  static const std::regex epoch(R"(@(-?[0-9]{1,12}(\.[0-9]+)?))");
  if (std::regex_match(text, m, epoch)) return platform::Date::dateWithTimeIntervalSince1970(std::stod(m[1]));
  static const std::regex date(
      R"(([0-9]{4})-([0-9]{2})-([0-9]{2})(?:[T ]([0-9]{2}):([0-9]{2})(?::([0-9]{2}))?)?(Z|[+-][0-9]{2}:?[0-9]{2})?)");
  if (!std::regex_match(text, m, date)) return std::nullopt;
  struct tm parts {};
  parts.tm_year = std::stoi(m[1]) - 1900;
  parts.tm_mon = std::stoi(m[2]) - 1;
  parts.tm_mday = std::stoi(m[3]);
  const bool dayOnly = !m[4].matched;
  parts.tm_hour = dayOnly ? 23 : std::stoi(m[4]);
  parts.tm_min = dayOnly ? 59 : std::stoi(m[5]);
  parts.tm_sec = dayOnly ? 59 : (m[6].matched ? std::stoi(m[6]) : 0);
  if (parts.tm_mon > 11 || parts.tm_mday < 1 || parts.tm_mday > 31 || parts.tm_hour > 23 || parts.tm_min > 59 ||
      parts.tm_sec > 60)
    return std::nullopt;
  const int day = parts.tm_mday, month = parts.tm_mon;
  time_t seconds;
  if (m[7].matched) {
    seconds = timegm(&parts);
    const std::string zone = m[7];
    if (zone != "Z") {
      const std::string digits = zone.substr(1);
      const int hours = std::stoi(digits.substr(0, 2));
      const int minutes = std::stoi(digits.substr(digits.size() - 2));
      const int offset = (hours * 60 + minutes) * 60;
      seconds += zone[0] == '+' ? -offset : offset;
    }
  } else {
    parts.tm_isdst = -1;
    seconds = mktime(&parts);
  }
  // mktime and timegm move a 31st of a short month into the next: refuse it.
  if (parts.tm_mday != day || parts.tm_mon != month) return std::nullopt;
  // A day alone means its very end: everything of that day counts.
  const double end = dayOnly ? 0.999 : 0;
  return platform::Date::dateWithTimeIntervalSince1970(static_cast<double>(seconds) + end);
}

}  // namespace skerrowctl
