#include "platform/Value.h"

#include <gtest/gtest.h>

using platform::Array;
using platform::Dictionary;
using platform::Value;

TEST(ValueTest, KindsAndAccessors) {
  EXPECT_TRUE(Value("a").isString());
  EXPECT_TRUE(Value::integer(-3).isInteger());
  EXPECT_TRUE(Value::unsignedInteger(3).isUnsignedInteger());
  EXPECT_TRUE(Value::real(1.5).isReal());
  EXPECT_TRUE(Value::boolean(true).isBoolean());
  EXPECT_TRUE(Value(platform::Date(1)).isDate());
  EXPECT_TRUE(Value::data({1, 2}).isData());
  EXPECT_TRUE(Value(Array{}).isArray());
  EXPECT_TRUE(Value(Dictionary{}).isDictionary());
  EXPECT_EQ(Value().asString() ? *Value().asString() : "x", "");
  EXPECT_EQ(Value::integer(1).asString(), nullptr);
}

TEST(ValueTest, NumbersConvertAndCompareAcrossKinds) {
  EXPECT_EQ(Value::integer(1), Value::real(1.0));
  EXPECT_EQ(Value::boolean(true), Value::integer(1));
  EXPECT_NE(Value::integer(-1), Value::unsignedInteger(UINT64_MAX));
  EXPECT_EQ(Value::real(2.9).int64Value(), 2);
  EXPECT_EQ(Value::unsignedInteger(UINT64_MAX).uint64Value(), UINT64_MAX);
  EXPECT_EQ(Value::real(1e30).int64Value(), INT64_MAX);
  EXPECT_EQ(Value::real(-1.0).uint32Value(), UINT32_MAX);
}

TEST(ValueTest, StringsReadAsNumbersTheFoundationWay) {
  EXPECT_EQ(Value("  42abc").int64Value(), 42);
  EXPECT_EQ(Value("abc").int64Value(), 0);
  EXPECT_TRUE(Value("YES").boolValue());
  EXPECT_TRUE(Value("true").boolValue());
  EXPECT_TRUE(Value("007").boolValue());
  EXPECT_FALSE(Value("NO").boolValue());
  EXPECT_FALSE(Value("000").boolValue());
  EXPECT_FALSE(Value("").boolValue());
  EXPECT_EQ(Value("1.5").doubleValue(), 1.5);
  EXPECT_EQ(Value("inf").doubleValue(), 0.0);
  EXPECT_EQ(Value("0x10").doubleValue(), 0.0);
}

TEST(ValueTest, CollectionsAnswerZeroToNumericGetters) {
  EXPECT_EQ(Value(Array{Value("1")}).int64Value(), 0);
  EXPECT_FALSE(Value(Dictionary{}).boolValue());
  EXPECT_EQ(Value(platform::Date(5)).doubleValue(), 0.0);
}

TEST(ValueTest, DictionaryKeepsInsertionOrderAndReplacesInPlace) {
  Dictionary d;
  d.set("b", Value("1"));
  d.set("a", Value("2"));
  d.set("b", Value("3"));
  ASSERT_EQ(d.keys(), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(*d.find("b"), Value("3"));
  EXPECT_TRUE(d.remove("b"));
  EXPECT_FALSE(d.remove("b"));
  EXPECT_EQ(d.find("b"), nullptr);
}

TEST(ValueTest, LargeDictionaryLookupsStayCorrectAcrossRemovals) {
  Dictionary d;
  for (int i = 0; i < 1000; ++i) d.set("k" + std::to_string(i), Value::integer(i));
  for (int i = 0; i < 1000; i += 2) ASSERT_TRUE(d.remove("k" + std::to_string(i)));
  EXPECT_EQ(d.size(), 500u);
  for (int i = 0; i < 1000; ++i) {
    const Value* v = d.find("k" + std::to_string(i));
    if (i % 2)
      ASSERT_TRUE(v && v->int64Value() == i);
    else
      ASSERT_EQ(v, nullptr);
  }
}

TEST(ValueTest, DictionaryEqualityIgnoresOrder) {
  Dictionary a{{"x", Value("1")}, {"y", Value::integer(2)}};
  Dictionary b{{"y", Value::real(2.0)}, {"x", Value("1")}};
  EXPECT_EQ(a, b);
  b.set("z", Value("3"));
  EXPECT_NE(a, b);
}

TEST(ValueTest, CopiesShareCollections) {
  Value v(Array{Value("a")});
  Value w = v;
  EXPECT_EQ(v.collectionIdentity(), w.collectionIdentity());
  Array changed = w.array();
  changed.push_back(Value("b"));
  Value x(changed);
  EXPECT_EQ(v.asArray()->size(), 1u);
  EXPECT_EQ(x.asArray()->size(), 2u);
}

TEST(ValueTest, DescriptionFollowsFoundation) {
  Dictionary d{{"name", Value("Ann Lee")}, {"count", Value::integer(3)}, {"list", Value(Array{Value("a"), Value("b")})}};
  EXPECT_EQ(Value(d).description(),
            "{\n    count = 3;\n    list =     (\n        a,\n        b\n    );\n    name = \"Ann Lee\";\n}");
  EXPECT_EQ(Value::data({0xde, 0xad, 0xbe, 0xef, 0x01}).description(), "<deadbeef 01>");
  EXPECT_EQ(Value::real(0.1).description(), "0.1");
  EXPECT_EQ(Dictionary().description(), "{\n}");
}
