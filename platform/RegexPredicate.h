// The predicate "SELF MATCHES[c] %@": a case-insensitive regular-expression
// match of a whole string, in ICU's regular-expression dialect.
//
// Compiling an invalid expression raises platform::Exception
// ("NSInvalidArgumentException").  Evaluation is bounded: a pathological
// expression (catastrophic backtracking) on a long string stops after
// kTimeLimit steps of ICU's matcher (on the order of milliseconds each) or
// when the backtrack stack passes kStackLimit bytes, and then counts as no
// match, so a bad filter never hangs or crashes the engine; it only fails to
// exclude.  A predicate is immutable and may be evaluated from any thread.
#pragma once

#include <memory>
#include <string>

namespace platform {

class RegexPredicate {
 public:
  static constexpr int kTimeLimit = 300;
  static constexpr int kStackLimit = 8 * 1024 * 1024;

  // Compiles `expression`; throws platform::Exception when it is invalid.
  static std::shared_ptr<const RegexPredicate> selfMatchesCaseInsensitive(const std::string& expression);
  // Whether `expression` compiles; fills `error` with ICU's reason when not.
  static bool isValidExpression(const std::string& expression, std::string* error = nullptr);

  ~RegexPredicate();
  RegexPredicate(const RegexPredicate&) = delete;
  RegexPredicate& operator=(const RegexPredicate&) = delete;

  // Whether the whole of `text` (UTF-8) matches.  Invalid UTF-8 sequences are
  // read as U+FFFD.
  bool evaluateWithObject(const std::string& text) const;

  const std::string& expression() const { return expression_; }
  // "SELF MATCHES[c] \"<expression>\"", as the predicate prints itself.
  std::string predicateFormat() const;

  struct Impl;

 private:
  RegexPredicate(std::string expression, std::unique_ptr<Impl> impl);
  std::string expression_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
