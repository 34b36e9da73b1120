#include "ipc/WireCoding.h"

#include <gtest/gtest.h>

#include <sdbus-c++/sdbus-c++.h>

#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSBackupError.h"
#include "Engine/records/QSMutableTally.h"
#include "ipc/SkerrowProxies.h"
#include "platform/Exception.h"

using platform::Dictionary;
using platform::Value;

namespace {

using EntryWire = sdbus::Struct<bool, bool, std::string, std::string, std::string, std::string, std::string,
                                std::string, std::string, std::string, std::string,
                                std::map<std::string, sdbus::Struct<bool, std::string, std::map<std::string, sdbus::Variant>>>,
                                double, double, uint32_t, std::vector<std::string>>;
using Counter = sdbus::Struct<int64_t>;
using TallyWire = sdbus::Struct<std::map<std::string, std::vector<Counter>>, std::map<std::string, std::vector<Counter>>,
                                std::map<std::string, std::vector<Counter>>, std::map<std::string, std::vector<Counter>>>;

Dictionary everyKind() {
  return Dictionary{{"s", Value("text")},
                    {"i", Value::integer(-5)},
                    {"u", Value::unsignedInteger(UINT64_MAX)},
                    {"r", Value::real(0.25)},
                    {"b", Value::boolean(true)},
                    {"d", Value(platform::Date(12345.5))},
                    {"data", Value::data({0, 1, 255})},
                    {"a", Value(platform::Array{Value("x"), Value::integer(2)})},
                    {"dict", Value(Dictionary{{"k", Value("v")}})}};
}

}  // namespace

// The struct types here must be the ones generated from the wire contract.
static_assert(std::is_same_v<decltype(std::declval<com::qsc::skerrow::QSTally_proxy&>().snapshot()), TallyWire>);
static_assert(std::is_same_v<decltype(std::declval<com::qsc::skerrow::QSSkerrowServerProtocol_proxy&>().db2()),
                             std::map<std::string, EntryWire>>);

TEST(WireCodingTest, PropertyListValuesRoundTripThroughVariants) {
  const Dictionary original = everyKind();
  const Dictionary back = wire::fromWireDictionary(wire::toWireDictionary(original));
  EXPECT_EQ(back, original);
  EXPECT_TRUE(back.find("u")->isUnsignedInteger());
  EXPECT_TRUE(back.find("d")->isDate());
  EXPECT_EQ(wire::toVariant(Value(platform::Date(1))).peekValueType(), "(d)");
}

TEST(WireCodingTest, ForeignIntegerAndStringTypesAreReadOtherTypesRefused) {
  EXPECT_EQ(wire::fromVariant(sdbus::Variant(int32_t{-7})), Value::integer(-7));
  EXPECT_EQ(wire::fromVariant(sdbus::Variant(uint8_t{7})), Value::integer(7));
  EXPECT_EQ(wire::fromVariant(sdbus::Variant(sdbus::ObjectPath("/a/b"))), Value("/a/b"));
  EXPECT_THROW(wire::fromVariant(sdbus::Variant(sdbus::Struct<int32_t, int32_t>(1, 2))), sdbus::Error);
}

TEST(WireCodingTest, BackupEntryRoundTripsWithEveryFieldAndWithoutTheExpression) {
  auto e = QSBackupEntry::initWithUID("5D0F1C2A-1B2C-11EF-8A3B-0242AC120002");
  e->setMachineName("studio");
  e->setShortUserName("ann");
  e->setUserHome("/home/ann");
  e->setMountPoint("/media/ann/Backup");
  e->setBSDName("sdb1");
  e->setVolumeName("Backup");
  e->setPersistent(true);
  e->setCompletionDate(platform::Date(700000000.5));
  e->setPeriod(3600);
  e->setVersionDepth(4);
  e->setExclusionExpression(".*/tmp");
  e->categoryWithIdentifier("Music")->setScheduled(true);
  e->categoryWithIdentifier("Pictures")->setUserInfo(std::make_shared<const Dictionary>(everyKind()));
  const EntryWire w = wire::toWire<EntryWire>(*e);
  EXPECT_TRUE(std::get<1>(w));
  EXPECT_EQ(std::get<2>(w), e->uid());
  EXPECT_EQ(std::get<8>(w), "/media/ann/Backup");  // the mount point comes before the BSD name
  EXPECT_EQ(std::get<9>(w), "sdb1");
  EXPECT_EQ(std::get<12>(w), 700000000.5);
  EXPECT_EQ(std::get<15>(w), std::vector<std::string>{".*/tmp"});
  auto back = wire::fromWire<QSBackupEntry>(w);
  EXPECT_EQ(back->description(), e->description());
  EXPECT_EQ(back->completionDate(), e->completionDate());
  EXPECT_EQ(*back->categoryWithIdentifier("Pictures")->userInfo(), everyKind());

  e->setExclusionExpression(std::nullopt);
  const EntryWire without = wire::toWire<EntryWire>(*e);
  EXPECT_TRUE(std::get<15>(without).empty());
  EXPECT_FALSE(wire::fromWire<QSBackupEntry>(without)->exclusionExpression());
}

TEST(WireCodingTest, TallyRoundTrips) {
  auto t = QSMutableTally::init();
  t->tallyFileOfSize_forSourceCategory(100, "Music");
  t->increaseBytesBy_filesBy_forExpectedCategory(7, 2, "Mail");
  const TallyWire w = wire::toWire<TallyWire>(*t);
  ASSERT_EQ(std::get<0>(w).at("Music").size(), 2u);
  EXPECT_EQ(std::get<0>(std::get<0>(w).at("Music")[1]), 100);
  auto back = wire::fromWire<QSTally>(w);
  EXPECT_EQ(back->description(), t->description());
}

TEST(WireCodingTest, AStructThatDoesNotFitTheRecordRaises) {
  using Short = sdbus::Struct<bool, bool, std::string>;
  auto e = QSBackupEntry::initWithUID("U");
  EXPECT_THROW(wire::toWire<Short>(*e), platform::Exception);
}

namespace {

// An error record with every optional field travels whole, and one without them as empty arrays.
TEST(WireCodingTest, ErrorRecordsTravelWithTheirOptionalFieldsAsArrays) {
  auto error = QSBackupError::initWithUID_sourcePath_destinationPath_message_code("UID-1", "/home/ann/a.txt",
                                                                                   "/mnt/b/a@0.txt", "No space", 28);
  error->setSourceBytes(4096);
  error->setSourceModificationDate(platform::Date(1000.5));
  const auto wire = wire::toWire<wire::ErrorWire>(*error);
  EXPECT_EQ(std::get<0>(wire), 28);
  EXPECT_EQ(std::get<1>(wire), 4096);
  EXPECT_EQ(std::get<2>(wire), std::vector<std::string>{"UID-1"});
  EXPECT_EQ(std::get<3>(wire), "No space");
  EXPECT_EQ(std::get<4>(wire), "/mnt/b/a@0.txt");
  EXPECT_EQ(std::get<5>(wire), std::vector<std::string>{"/home/ann/a.txt"});
  EXPECT_EQ(std::get<6>(wire), std::vector<double>{1000.5});
  const auto back = wire::fromWire<QSBackupError>(wire);
  EXPECT_EQ(back->description(), error->description());

  auto bare = QSBackupError::initWithUID_sourcePath_destinationPath_message_code(std::nullopt, std::nullopt, "/d",
                                                                                  "m", 1);
  const auto bareWire = wire::toWire<wire::ErrorWire>(*bare);
  EXPECT_TRUE(std::get<2>(bareWire).empty());
  EXPECT_TRUE(std::get<5>(bareWire).empty());
  EXPECT_TRUE(std::get<6>(bareWire).empty());
}

}  // namespace
