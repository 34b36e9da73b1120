#include "platform/RegexPredicate.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include "platform/Exception.h"
#include "platform/Format.h"

namespace platform {

struct RegexPredicate::Impl {
  std::unique_ptr<icu::RegexPattern> pattern;
};

namespace {

std::unique_ptr<icu::RegexPattern> compile(const std::string& expression, std::string* error) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError;
  std::unique_ptr<icu::RegexPattern> pattern(icu::RegexPattern::compile(
      icu::UnicodeString::fromUTF8(expression), UREGEX_CASE_INSENSITIVE, parseError, status));
  if (U_FAILURE(status) || !pattern) {
    if (error)
      *error = format("%s at line %d, offset %d", u_errorName(status), static_cast<int>(parseError.line),
                      static_cast<int>(parseError.offset));
    return nullptr;
  }
  return pattern;
}

}  // namespace

RegexPredicate::RegexPredicate(std::string expression, std::unique_ptr<Impl> impl)
    : expression_(std::move(expression)), impl_(std::move(impl)) {}

RegexPredicate::~RegexPredicate() = default;

std::shared_ptr<const RegexPredicate> RegexPredicate::selfMatchesCaseInsensitive(const std::string& expression) {
  std::string error;
  auto pattern = compile(expression, &error);
  if (!pattern)
    Exception::raise(kInvalidArgumentException, "Can't do regex matching, reason: Can't open pattern %s (pattern %s)",
                     error.c_str(), expression.c_str());
  auto impl = std::make_unique<Impl>();
  impl->pattern = std::move(pattern);
  return std::shared_ptr<const RegexPredicate>(new RegexPredicate(expression, std::move(impl)));
}

bool RegexPredicate::isValidExpression(const std::string& expression, std::string* error) {
  return compile(expression, error) != nullptr;
}

bool RegexPredicate::evaluateWithObject(const std::string& text) const {
  const icu::UnicodeString subject = icu::UnicodeString::fromUTF8(text);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(impl_->pattern->matcher(subject, status));
  if (U_FAILURE(status) || !matcher) return false;
  matcher->setTimeLimit(kTimeLimit, status);
  matcher->setStackLimit(kStackLimit, status);
  if (U_FAILURE(status)) return false;
  const UBool matched = matcher->matches(status);
  // U_REGEX_TIME_OUT and U_REGEX_STACK_OVERFLOW end here as no match.
  return U_SUCCESS(status) && matched;
}

std::string RegexPredicate::predicateFormat() const { return "SELF MATCHES[c] \"" + expression_ + "\""; }

}  // namespace platform
