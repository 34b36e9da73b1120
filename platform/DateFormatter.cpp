#include "platform/DateFormatter.h"

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>

namespace platform {

namespace {

// ICU dates are milliseconds since 1970.
constexpr double kMillisecondsPerSecond = 1000.0;

}  // namespace

struct DateFormatter::Impl {
  std::unique_ptr<icu::SimpleDateFormat> format;
};

DateFormatter::DateFormatter(std::string pattern, std::unique_ptr<Impl> impl)
    : pattern_(std::move(pattern)), impl_(std::move(impl)) {}

DateFormatter::~DateFormatter() = default;

std::unique_ptr<DateFormatter> DateFormatter::withPattern(const std::string& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  auto format = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern), icu::Locale::getRoot(),
                                                        status);
  if (U_FAILURE(status)) return nullptr;
  // GMT whatever the host's zone, and no rolling over of out-of-range fields.
  format->adoptTimeZone(icu::TimeZone::createTimeZone(icu::UnicodeString(u"GMT")));
  format->setLenient(false);
  auto impl = std::make_unique<Impl>();
  impl->format = std::move(format);
  return std::unique_ptr<DateFormatter>(new DateFormatter(pattern, std::move(impl)));
}

std::optional<Date> DateFormatter::dateFromString(const std::string& text) const {
  const icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(text);
  std::lock_guard<std::mutex> lock(mutex_);
  icu::ParsePosition position(0);
  const UDate parsed = impl_->format->parse(unicode, position);
  if (position.getErrorIndex() >= 0 || position.getIndex() != unicode.length()) return std::nullopt;
  if (!std::isfinite(parsed)) return std::nullopt;
  return Date::dateWithTimeIntervalSince1970(parsed / kMillisecondsPerSecond);
}

std::string DateFormatter::stringFromDate(Date date) const {
  icu::UnicodeString out;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    impl_->format->format(static_cast<UDate>(date.timeIntervalSince1970() * kMillisecondsPerSecond), out);
  }
  std::string text;
  out.toUTF8String(text);
  return text;
}

}  // namespace platform
