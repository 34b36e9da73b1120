// How skerrowctl words numbers, sizes, durations, dates and settings for
// people (and dates for programs): one place, so that every command says
// things the same way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Date.h"

namespace skerrowctl {

// 2797 -> "2,797".
std::string grouped(int64_t number);
// "1 file", "2,797 files".
std::string countOf(int64_t number, const std::string& singular, const std::string& plural);
// Decimal units: 999 -> "999 B", 1234567 -> "1.2 MB".
std::string humanBytes(int64_t bytes);
// A rate in bytes per second: "34.2 MB/s".
std::string humanRate(double bytesPerSecond);
// Seconds as a clock: 5 -> "0:05", 754 -> "12:34", 4000 -> "1:06:40".
std::string clockDuration(double seconds);
// Seconds in words: 0.4 -> "0.4 s", 75 -> "1 min 15 s", 3700 -> "1 h 1 min".
std::string wordedDuration(double seconds);

// A backup's schedule in words: "off" when it is not scheduled, else
// "every hour", "every 2 hours", "every day", "every 30 minutes", ...
std::string scheduleWords(bool scheduled, double periodSeconds);
// What a version depth keeps: depth N keeps the newest copy and N older
// ones, so "keeps 1 version" at depth 0 and "keeps 4 versions" at depth 3.
std::string keepsWords(uint32_t versionDepth);

// A date for people, in local time: "2025-01-02 10:04".
std::string localDate(const platform::Date& date);
// A date for programs: ISO 8601 in UTC, "2025-01-02T09:04:05Z", with
// milliseconds when `fraction` is set ("2025-01-02T09:04:05.123Z").
std::string isoDate(const platform::Date& date, bool fraction = false);

// Reads a date the user typed: "2025-01-02" (the end of that day, local
// time), "2025-01-02 10:04" or "2025-01-02T10:04:05" (local time, seconds
// optional), any of these with "Z" or "+hh:mm" (that zone), or "@SECONDS"
// since 1970.  Nothing when the text is none of these.
std::optional<platform::Date> parseUserDate(const std::string& text);

}  // namespace skerrowctl
