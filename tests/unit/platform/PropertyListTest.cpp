#include "platform/PropertyList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <filesystem>

#include "tests/support/DeepPropertyLists.h"
#include "tests/support/TempDir.h"

using platform::Array;
using platform::Date;
using platform::Dictionary;
using platform::PropertyList;
using platform::Value;

namespace {

Value everyKind() {
  Dictionary inner{{"deep", Value(Array{Value::integer(1), Value("two")})}};
  Dictionary d;
  d.set("string", Value("h\xc3\xa9llo <&> \"quoted\""));
  d.set("empty", Value(""));
  d.set("negative", Value::integer(-42));
  d.set("big", Value::integer(INT64_MAX));
  d.set("small", Value::integer(INT64_MIN));
  d.set("unsigned", Value::unsignedInteger(4000000000u));
  d.set("real", Value::real(0.1));
  d.set("yes", Value::boolean(true));
  d.set("no", Value::boolean(false));
  d.set("date", Value(Date(604713599)));
  d.set("distant-past", Value(Date::distantPast()));
  d.set("distant-future", Value(Date::distantFuture()));
  d.set("data", Value::data({0, 1, 2, 255}));
  d.set("empty-data", Value::data({}));
  d.set("array", Value(Array{Value("a"), Value::integer(2), Value(Array{})}));
  d.set("dict", Value(inner));
  d.set("empty-dict", Value(Dictionary{}));
  return Value(d);
}

}  // namespace

TEST(PropertyListTest, XMLRoundTripOfEveryKind) {
  const Value original = everyKind();
  auto bytes = PropertyList::toBytes(original, PropertyList::Format::XML);
  ASSERT_TRUE(bytes);
  EXPECT_NE(bytes->find("<?xml"), std::string::npos);
  auto back = PropertyList::fromBytes(*bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, original);
  // Insertion order is the file's order.
  EXPECT_EQ(back->asDictionary()->keys(), original.asDictionary()->keys());
}

TEST(PropertyListTest, BinaryRoundTripOfEveryKind) {
  const Value original = everyKind();
  auto bytes = PropertyList::toBytes(original, PropertyList::Format::Binary);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(bytes->substr(0, 6), "bplist");
  auto back = PropertyList::fromBytes(*bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, original);
}

TEST(PropertyListTest, BinaryDatesKeepMicrosecondsAndSign) {
  for (double s : {-0.5, 0.5, -0.000001, 1.25, -1234.000125, 604713599.5}) {
    Dictionary d{{"d", Value(Date(s))}};
    auto back = PropertyList::fromBytes(*PropertyList::toBytes(Value(d), PropertyList::Format::Binary));
    ASSERT_TRUE(back);
    EXPECT_NEAR(back->asDictionary()->find("d")->asDate()->timeIntervalSinceReferenceDate(), s, 1e-6) << s;
  }
}

TEST(PropertyListTest, XMLDatesKeepWholeSeconds) {
  for (double s : {700000000.75, -0.5, 0.5, -63114076800.5, -100.25}) {
    Dictionary d{{"d", Value(Date(s))}};
    auto back = PropertyList::fromBytes(*PropertyList::toBytes(Value(d), PropertyList::Format::XML));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->asDictionary()->find("d")->asDate()->timeIntervalSinceReferenceDate(), std::trunc(s)) << s;
  }
}

TEST(PropertyListTest, DatesBeyondThe32BitRangeSurviveBothFormats) {
  for (double s : {-63114076800.0, 63113904000.0, -3000000000.0, 3000000000.0}) {  // whole seconds: XML keeps those
    for (auto format : {PropertyList::Format::XML, PropertyList::Format::Binary}) {
      Dictionary d{{"d", Value(Date(s))}};
      auto back = PropertyList::fromBytes(*PropertyList::toBytes(Value(d), format));
      ASSERT_TRUE(back);
      EXPECT_EQ(back->asDictionary()->find("d")->asDate()->timeIntervalSinceReferenceDate(), s) << s;
    }
  }
}

TEST(PropertyListTest, BinaryKeepsExactDatesBeyondThe32BitRange) {
  for (double s : {-63114076800.25, 63113904000.125, 3000000000.000001}) {
    Dictionary d{{"d", Value(Date(s))}};
    auto back = PropertyList::fromBytes(*PropertyList::toBytes(Value(d), PropertyList::Format::Binary));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->asDictionary()->find("d")->asDate()->timeIntervalSinceReferenceDate(), s) << s;
  }
}

TEST(PropertyListTest, ReadsXMLWrittenByOtherTools) {
  const std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\"><dict><key>when</key><date>0000-12-30T00:00:00Z</date>"
      "<key>n</key><integer>7</integer><key>t</key><true/></dict></plist>\n";
  auto v = PropertyList::fromBytes(xml);
  ASSERT_TRUE(v && v->isDictionary());
  EXPECT_EQ(*v->asDictionary()->find("when")->asDate(), Date::distantPast());
  EXPECT_EQ(v->asDictionary()->find("n")->int64Value(), 7);
  EXPECT_TRUE(v->asDictionary()->find("t")->boolValue());
}

TEST(PropertyListTest, UnsignedAboveInt64MaxReadsBackWithTheSameBits) {
  Dictionary d{{"u", Value::unsignedInteger(UINT64_MAX)}};
  auto back = PropertyList::fromBytes(*PropertyList::toBytes(Value(d), PropertyList::Format::XML));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->asDictionary()->find("u")->uint64Value(), UINT64_MAX);
}

TEST(PropertyListTest, CorruptAndTruncatedBytesReadAsNothing) {
  const std::string xml = *PropertyList::toBytes(everyKind(), PropertyList::Format::XML);
  const std::string bin = *PropertyList::toBytes(everyKind(), PropertyList::Format::Binary);
  EXPECT_FALSE(PropertyList::fromBytes(std::string()));
  EXPECT_FALSE(PropertyList::fromBytes(std::string("not a plist at all")));
  EXPECT_FALSE(PropertyList::fromBytes(std::string("bplist00")));
  for (size_t cut = 0; cut < bin.size(); cut += 7) {
    auto v = PropertyList::fromBytes(bin.substr(0, cut));
    EXPECT_FALSE(v.has_value() && *v == everyKind()) << cut;
  }
  for (size_t cut = 0; cut < xml.size(); cut += 13) {
    // A cut that drops only the closing white space leaves the whole list.
    if (xml.find_first_not_of(" \t\r\n", cut) == std::string::npos) continue;
    auto v = PropertyList::fromBytes(xml.substr(0, cut));
    EXPECT_FALSE(v.has_value() && *v == everyKind()) << cut;
  }
}

// libplist aborts on a dictionary key made from a UTF-16 string holding
// U+0000; such a list must read as nothing instead.
TEST(PropertyListTest, BinaryKeyHoldingNulReadsAsNothing) {
  const unsigned char bytes[] = {'b', 'p', 'l', 'i', 's', 't', '0', '0',
                                 0xD1, 0x01, 0x02,              // object 0: dictionary {1: 2}
                                 0x62, 0x00, 0x61, 0x00, 0x00,  // object 1: UTF-16 "a\0"
                                 0x51, 'x',                     // object 2: "x"
                                 0x08, 0x0B, 0x10,              // offset table
                                 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0,
                                 0, 0, 0, 0, 0, 0, 0, 18};
  EXPECT_FALSE(PropertyList::fromBytes(bytes, sizeof bytes).has_value());
  // The same list with "ab" as key reads.
  unsigned char fine[sizeof bytes];
  std::memcpy(fine, bytes, sizeof bytes);
  fine[15] = 'b';
  auto v = PropertyList::fromBytes(fine, sizeof fine);
  ASSERT_TRUE(v && v->isDictionary());
  EXPECT_EQ(*v->asDictionary()->find("ab"), Value("x"));
}

TEST(PropertyListTest, HostileNestingReadsAsNothing) {
  std::string xml = "<plist version=\"1.0\">";
  for (int i = 0; i < 100000; ++i) xml += "<array>";
  for (int i = 0; i < 100000; ++i) xml += "</array>";
  xml += "</plist>";
  EXPECT_FALSE(PropertyList::fromBytes(xml).has_value());
  std::string fine = "<plist version=\"1.0\">";
  for (int i = 0; i < 100; ++i) fine += "<array>";
  for (int i = 0; i < 100; ++i) fine += "</array>";
  fine += "</plist>";
  EXPECT_TRUE(PropertyList::fromBytes(fine).has_value());
}

TEST(PropertyListTest, FileWriteIsAtomicAndReadable) {
  skerrow_test::TempDir dir;
  const std::string path = dir / "db.plist";
  ASSERT_TRUE(PropertyList::writeFile(path, everyKind()));
  auto back = PropertyList::readFile(path);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, everyKind());
  ASSERT_TRUE(PropertyList::writeFile(path, Value(Dictionary{{"k", Value("v")}}), PropertyList::Format::Binary));
  EXPECT_EQ(*PropertyList::readFile(path), Value(Dictionary{{"k", Value("v")}}));
  // No temporary file is left behind.
  size_t entries = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path())) {
    (void)e;
    ++entries;
  }
  EXPECT_EQ(entries, 1u);
}

TEST(PropertyListTest, MissingOrTruncatedFileReadsAsNothing) {
  skerrow_test::TempDir dir;
  EXPECT_FALSE(PropertyList::readFile(dir / "missing.plist"));
  const std::string bytes = *PropertyList::toBytes(everyKind(), PropertyList::Format::XML);
  dir.write("cut.plist", bytes.substr(0, bytes.size() / 2));
  EXPECT_FALSE(PropertyList::readFile(dir / "cut.plist"));
  EXPECT_FALSE(PropertyList::readFile(dir.path()));  // a folder
}

TEST(PropertyListTest, WriteIntoMissingFolderFails) {
  skerrow_test::TempDir dir;
  EXPECT_FALSE(PropertyList::writeFile(dir / "no/such/folder/x.plist", everyKind()));
}

TEST(PropertyListTest, XMLNestingWithWhiteSpaceInTheTagsReadsAsNothingWithTheReason) {
  for (const std::string afterName : {"\n>", "\t>", "\r>", " >"}) {
    std::string why;
    EXPECT_FALSE(PropertyList::fromBytes(skerrow_test::deepXmlPropertyList(100000, afterName)).has_value());
    const std::string deep = skerrow_test::deepXmlPropertyList(100000, afterName);
    EXPECT_FALSE(PropertyList::fromBytes(deep.data(), deep.size(), &why).has_value());
    EXPECT_EQ(why, "nests arrays or dictionaries deeper than 256 levels");
  }
}

TEST(PropertyListTest, BinaryNestingAHundredThousandOrAMillionLevelsDeepReadsAsNothing) {
  for (size_t levels : {300u, 100000u, 1000000u}) {
    const std::string deep = skerrow_test::deepBinaryPropertyList(levels);
    std::string why;
    EXPECT_FALSE(PropertyList::fromBytes(deep.data(), deep.size(), &why).has_value()) << levels;
    EXPECT_EQ(why, "nests arrays or dictionaries deeper than 256 levels") << levels;
  }
}

TEST(PropertyListTest, BinaryNestingWithinTheLimitReads) {
  const std::string fine = skerrow_test::deepBinaryPropertyList(200);
  const auto value = PropertyList::fromBytes(fine);
  ASSERT_TRUE(value.has_value());
  size_t levels = 0;
  for (const Value* v = &*value; v && v->asArray(); v = v->asArray()->empty() ? nullptr : &v->asArray()->front())
    ++levels;
  EXPECT_EQ(levels, 200u);
}

TEST(PropertyListTest, ABinaryReferenceCycleReadsAsNothing) {
  const std::string cycle = skerrow_test::deepBinaryPropertyList(3, true);
  std::string why;
  EXPECT_FALSE(PropertyList::fromBytes(cycle.data(), cycle.size(), &why).has_value());
  EXPECT_EQ(why, "nests arrays or dictionaries deeper than 256 levels");
}

TEST(PropertyListTest, TheDistantPastIsWrittenAsFoundationWritesItAndReadsBackAsTheDistantPast) {
  const Value value(Dictionary{{"completion-date", Value(Date::distantPast())}});
  const auto xml = PropertyList::toBytes(value, PropertyList::Format::XML);
  ASSERT_TRUE(xml.has_value());
  EXPECT_NE(xml->find("<date>0001-01-01T00:00:00Z</date>"), std::string::npos) << *xml;
  const auto back = PropertyList::fromBytes(*xml);
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(*back->asDictionary()->find("completion-date")->asDate(), Date::distantPast());
}

TEST(PropertyListTest, TheDistantPastAsEarlierVersionsWroteItStillReads) {
  const std::string old =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
      "\t<key>completion-date</key>\n\t<date>0-12-30T00:00:00Z</date>\n</dict>\n</plist>\n";
  const auto value = PropertyList::fromBytes(old);
  ASSERT_TRUE(value.has_value());
  EXPECT_EQ(*value->asDictionary()->find("completion-date")->asDate(), Date::distantPast());
}

TEST(PropertyListTest, AFifoWhereAFileShouldBeReadsAsNothingAtOnce) {
  skerrow_test::TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  std::string why;
  EXPECT_FALSE(PropertyList::readFile(dir / "fifo", &why).has_value());
  EXPECT_EQ(why, "could not be opened (Invalid argument)");
}
