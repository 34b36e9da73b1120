#include "platform/RegexPredicate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/Exception.h"

using platform::RegexPredicate;

TEST(RegexPredicateTest, MatchesWholeStringCaseInsensitively) {
  auto p = RegexPredicate::selfMatchesCaseInsensitive(".*/Library/Caches(/.*)?");
  EXPECT_TRUE(p->evaluateWithObject("/home/ann/Library/Caches"));
  EXPECT_TRUE(p->evaluateWithObject("/HOME/ann/library/caches/x"));
  EXPECT_FALSE(p->evaluateWithObject("/home/ann/Library/CachesX"));
  auto q = RegexPredicate::selfMatchesCaseInsensitive("abc");
  EXPECT_FALSE(q->evaluateWithObject("xabc"));
  EXPECT_FALSE(q->evaluateWithObject("abcx"));
  EXPECT_TRUE(q->evaluateWithObject("ABC"));
}

TEST(RegexPredicateTest, UnicodeCaseFolding) {
  auto p = RegexPredicate::selfMatchesCaseInsensitive("école");
  EXPECT_TRUE(p->evaluateWithObject("ÉCOLE"));
}

TEST(RegexPredicateTest, InvalidPatternRaises) {
  EXPECT_THROW(RegexPredicate::selfMatchesCaseInsensitive("(unclosed"), platform::Exception);
  try {
    RegexPredicate::selfMatchesCaseInsensitive("[z-a]");
    FAIL();
  } catch (const platform::Exception& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
  }
  std::string error;
  EXPECT_FALSE(RegexPredicate::isValidExpression("*", &error));
  EXPECT_FALSE(error.empty());
  EXPECT_TRUE(RegexPredicate::isValidExpression("a*"));
}

TEST(RegexPredicateTest, PathologicalPatternOnLongStringEndsAsNoMatch) {
  auto p = RegexPredicate::selfMatchesCaseInsensitive("(a+)+$");
  const std::string text = std::string(5000, 'a') + "!";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(p->evaluateWithObject(text));
  // Bounded by the matcher's time limit, far from the exponential running time.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST(RegexPredicateTest, DeepBacktrackingDoesNotOverflowTheStack) {
  auto p = RegexPredicate::selfMatchesCaseInsensitive("(a|b)*c");
  EXPECT_FALSE(p->evaluateWithObject(std::string(2000000, 'a')));
}

TEST(RegexPredicateTest, InvalidUTF8IsMatchedAsReplacementCharacters) {
  auto p = RegexPredicate::selfMatchesCaseInsensitive("a.b");
  EXPECT_TRUE(p->evaluateWithObject(std::string("a\xff" "b")));
}

TEST(RegexPredicateTest, EvaluatesFromManyThreads) {
  auto p = RegexPredicate::selfMatchesCaseInsensitive("file[0-9]+\\.txt");
  std::vector<std::thread> threads;
  std::atomic<int> matches{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i)
        if (p->evaluateWithObject("FILE" + std::to_string(i) + ".TXT")) ++matches;
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(matches.load(), 2000);
}

TEST(RegexPredicateTest, PredicateFormat) {
  EXPECT_EQ(RegexPredicate::selfMatchesCaseInsensitive("a.*")->predicateFormat(), "SELF MATCHES[c] \"a.*\"");
}
