#include "Engine/records/QSCategoryEntry.h"

#include <gtest/gtest.h>

#include "Engine/records/QSMemoryCoder.h"

using platform::Dictionary;
using platform::Value;

TEST(QSCategoryEntryTest, InitWithIdentifier) {
  auto c = QSCategoryEntry::initWithIdentifier("Music");
  EXPECT_EQ(c->identifier(), "Music");
  EXPECT_FALSE(c->isScheduled());
  ASSERT_TRUE(c->userInfo());
  EXPECT_TRUE(c->userInfo()->empty());
}

TEST(QSCategoryEntryTest, ArchiveRoundTrip) {
  auto c = QSCategoryEntry::initWithIdentifier("Mail");
  c->setScheduled(true);
  c->setUserInfo(std::make_shared<const Dictionary>(Dictionary{{"when", Value(platform::Date(3))}}));
  const Dictionary archive = c->archive();
  EXPECT_EQ(archive.keys(), (std::vector<std::string>{"identifier", "user-info", "scheduled"}));
  EXPECT_TRUE(archive.find("scheduled")->isBoolean());
  auto back = QSCategoryEntry::initWithArchive(archive);
  EXPECT_EQ(back->identifier(), "Mail");
  EXPECT_TRUE(back->isScheduled());
  EXPECT_EQ(*back->userInfo(), *c->userInfo());
}

TEST(QSCategoryEntryTest, ArchiveWithoutScheduledOrUserInfoReadsDefaults) {
  auto c = QSCategoryEntry::initWithArchive(Dictionary{{"identifier", Value("Other")}});
  EXPECT_FALSE(c->isScheduled());
  EXPECT_TRUE(c->userInfo()->empty());
}

TEST(QSCategoryEntryTest, PortCodingRoundTrip) {
  auto c = QSCategoryEntry::initWithIdentifier("Movies");
  c->setScheduled(true);
  c->setUserInfo(std::make_shared<const Dictionary>(Dictionary{{"x", Value::data({1, 2})}}));
  QSMemoryCoder coder;
  c->encodeWithCoder(coder.encoder());
  QSDecoder& d = coder.decoder();
  EXPECT_TRUE(d.decodeBool());
  EXPECT_EQ(d.decodeString(), "Movies");
  EXPECT_EQ(d.decodeDictionary(), *c->userInfo());
  coder.rewind();
  auto back = QSCategoryEntry::initWithCoder(coder.decoder());
  EXPECT_EQ(back->identifier(), "Movies");
  EXPECT_TRUE(back->isScheduled());
  EXPECT_EQ(*back->userInfo(), *c->userInfo());
}

TEST(QSCategoryEntryTest, MutableCopySharesTheUserInfoObject) {
  auto c = QSCategoryEntry::initWithIdentifier("Music");
  c->setScheduled(true);
  c->setUserInfo(std::make_shared<const Dictionary>(Dictionary{{"a", Value("b")}}));
  auto copy = c->mutableCopy();
  EXPECT_NE(copy, c);
  EXPECT_EQ(copy->identifier(), "Music");
  EXPECT_TRUE(copy->isScheduled());
  EXPECT_EQ(copy->userInfo(), c->userInfo());
  EXPECT_EQ(copy->observationCount("scheduled"), 0u);
}

TEST(QSCategoryEntryTest, SetUserInfoWithTheSameObjectDoesNothing) {
  auto c = QSCategoryEntry::initWithIdentifier("Music");
  auto info = std::make_shared<const Dictionary>(Dictionary{{"a", Value("b")}});
  c->setUserInfo(info);
  c->setUserInfo(info);
  EXPECT_EQ(c->userInfo(), info);
  c->setUserInfo(nullptr);
  ASSERT_TRUE(c->userInfo());
  EXPECT_TRUE(c->userInfo()->empty());
}

TEST(QSCategoryEntryTest, DescriptionFormat) {
  auto c = QSCategoryEntry::initWithIdentifier("Music");
  EXPECT_EQ(c->description(), "\n   isScheduled: NO\n      userInfo: (empty)\n");
  c->setScheduled(true);
  c->setUserInfo(std::make_shared<const Dictionary>(Dictionary{{"a", Value("b")}}));
  EXPECT_EQ(c->description(), "\n   isScheduled: YES\n      userInfo: {\n    a = b;\n}\n");
}

TEST(QSCategoryEntryTest, TravelsByCopyUnlessAReferenceIsAsked) {
  QSMemoryCoder byCopy(false), byRef(true);
  EXPECT_EQ(QSCategoryEntry::replacementObjectForPortCoder(byCopy.encoder()), QSPortReplacement::ByCopy);
  EXPECT_EQ(QSCategoryEntry::replacementObjectForPortCoder(byRef.encoder()), QSPortReplacement::ByReference);
}
