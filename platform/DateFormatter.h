// Fixed-pattern date parsing and formatting through ICU.
//
// A formatter has one pattern (ICU's SimpleDateFormat syntax, quoted
// literals included), works in the root locale and in GMT, and is strict:
// it is not lenient (a month 13 or an hour 24 does not roll over) and a
// parse succeeds only when the pattern consumes the whole text.  Parsed
// dates are whole seconds when the pattern has no fraction field.
//
// A formatter may be used from several threads; calls are serialised.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Date.h"

namespace platform {

class DateFormatter {
 public:
  // A formatter for `pattern`; nothing when ICU rejects the pattern.
  static std::unique_ptr<DateFormatter> withPattern(const std::string& pattern);
  ~DateFormatter();
  DateFormatter(const DateFormatter&) = delete;
  DateFormatter& operator=(const DateFormatter&) = delete;

  // The date `text` (UTF-8) spells, or nothing when the pattern does not
  // match the whole text.
  std::optional<Date> dateFromString(const std::string& text) const;
  // `date` written with the pattern, in GMT.
  std::string stringFromDate(Date date) const;

  const std::string& pattern() const { return pattern_; }

 private:
  struct Impl;
  DateFormatter(std::string pattern, std::unique_ptr<Impl> impl);
  std::string pattern_;
  std::unique_ptr<Impl> impl_;
  mutable std::mutex mutex_;
};

}  // namespace platform
