#include "Engine/records/QSMemoryCoder.h"

#include <gtest/gtest.h>

#include "platform/Exception.h"

TEST(QSMemoryCoderTest, PlaysBackEveryItemKindInOrder) {
  QSMemoryCoder coder;
  QSEncoder& e = coder.encoder();
  e.encodeBool(true);
  e.encodeInt64(-9);
  e.encodeUInt32(7);
  e.encodeDouble(0.25);
  e.encodeString("s");
  e.encodeOptionalString(std::nullopt);
  e.encodeDate(platform::Date(5));
  e.encodeDictionary(platform::Dictionary{{"k", platform::Value("v")}});
  e.beginArray(0);
  e.endArray();
  e.beginDictionary(0);
  e.endDictionary();
  e.beginObject("X");
  e.endObject();
  QSDecoder& d = coder.decoder();
  EXPECT_TRUE(d.decodeBool());
  EXPECT_EQ(d.decodeInt64(), -9);
  EXPECT_EQ(d.decodeUInt32(), 7u);
  EXPECT_EQ(d.decodeDouble(), 0.25);
  EXPECT_EQ(d.decodeString(), "s");
  EXPECT_FALSE(d.decodeOptionalString());
  EXPECT_EQ(d.decodeDate(), platform::Date(5));
  EXPECT_EQ(d.decodeDictionary().size(), 1u);
  EXPECT_EQ(d.beginArray(), 0u);
  d.endArray();
  EXPECT_EQ(d.beginDictionary(), 0u);
  d.endDictionary();
  d.beginObject("X");
  d.endObject();
  EXPECT_EQ(coder.remaining(), 0u);
}

TEST(QSMemoryCoderTest, WrongKindOrClassOrEndOfStreamRaises) {
  QSMemoryCoder coder;
  coder.encoder().encodeString("s");
  coder.encoder().beginObject("A");
  EXPECT_THROW(coder.decoder().decodeInt64(), platform::Exception);
  coder.rewind();
  EXPECT_EQ(coder.decoder().decodeString(), "s");
  EXPECT_THROW(coder.decoder().beginObject("B"), platform::Exception);
  coder.decoder().beginObject("A");
  EXPECT_THROW(coder.decoder().decodeBool(), platform::Exception);
}

TEST(QSMemoryCoderTest, ByReferenceFlag) {
  EXPECT_FALSE(QSMemoryCoder().encoder().isByref());
  EXPECT_TRUE(QSMemoryCoder(true).encoder().isByref());
}
