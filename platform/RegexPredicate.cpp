#include "platform/RegexPredicate.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <atomic>
#include <unordered_map>

#include "platform/Exception.h"
#include "platform/Format.h"

namespace platform {

struct RegexPredicate::Impl {
  std::unique_ptr<icu::RegexPattern> pattern;
  uint64_t id = 0;  // unique for the life of the process: keys the per-thread matchers
};

namespace {

std::atomic<uint64_t> gNextId{1};

// Each thread keeps one matcher per predicate it evaluates, so a predicate
// applied to every file of a walk does not build a matcher per file.  The
// cache is keyed by the predicate's id and emptied when it grows large.
struct MatcherCache {
  static constexpr size_t kMaxEntries = 32;
  std::unordered_map<uint64_t, std::unique_ptr<icu::RegexMatcher>> matchers;
};
thread_local MatcherCache tMatchers;

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
  impl->id = gNextId.fetch_add(1);
  return std::shared_ptr<const RegexPredicate>(new RegexPredicate(expression, std::move(impl)));
}

bool RegexPredicate::isValidExpression(const std::string& expression, std::string* error) {
  return compile(expression, error) != nullptr;
}

bool RegexPredicate::evaluateWithObject(const std::string& text) const {
  UErrorCode status = U_ZERO_ERROR;
  auto& slot = tMatchers.matchers[impl_->id];
  if (!slot) {
    if (tMatchers.matchers.size() > MatcherCache::kMaxEntries) {
      tMatchers.matchers.clear();
      return evaluateWithObject(text);
    }
    slot.reset(impl_->pattern->matcher(status));
    if (U_FAILURE(status) || !slot) {
      tMatchers.matchers.erase(impl_->id);
      return false;
    }
    slot->setTimeLimit(kTimeLimit, status);
    slot->setStackLimit(kStackLimit, status);
    if (U_FAILURE(status)) {
      tMatchers.matchers.erase(impl_->id);
      return false;
    }
  }
  // The text is matched in place as UTF-8 (invalid sequences read as U+FFFD).
  UText utext = UTEXT_INITIALIZER;
  utext_openUTF8(&utext, text.data(), static_cast<int64_t>(text.size()), &status);
  if (U_FAILURE(status)) return false;
  slot->reset(&utext);
  const UBool matched = slot->matches(status);
  utext_close(&utext);
  // U_REGEX_TIME_OUT and U_REGEX_STACK_OVERFLOW end here as no match.
  return U_SUCCESS(status) && matched;
}

std::string RegexPredicate::predicateFormat() const { return "SELF MATCHES[c] \"" + expression_ + "\""; }

}  // namespace platform
