#include "Engine/server/TestObject.h"

#include <gtest/gtest.h>

#include "Engine/records/QSMemoryCoder.h"
#include "platform/Exception.h"
#include "platform/Log.h"

namespace {

// An encoder whose stream breaks at the first date.
class BrokenEncoder : public QSEncoder {
 public:
  bool isByref() const override { return false; }
  void encodeBool(bool) override {}
  void encodeInt64(int64_t) override {}
  void encodeUInt32(uint32_t) override {}
  void encodeDouble(double value) override { doubles.push_back(value); }
  void encodeString(const std::string&) override {}
  void encodeOptionalString(const std::optional<std::string>&) override {}
  void encodeDate(platform::Date) override { platform::Exception::raise("NSPortTimeoutException", "connection timed out"); }
  void encodeDictionary(const platform::Dictionary&) override {}
  void beginArray(size_t) override {}
  void endArray() override {}
  void beginDictionary(size_t) override {}
  void endDictionary() override {}
  void beginObject(const std::string&) override {}
  void endObject() override {}
  std::vector<double> doubles;
};

}  // namespace

TEST(TestObjectTest, TimeAndDateAreTheSameInstant) {
  const auto beat = TestObject::initWithAbsoluteTime(123.5);
  EXPECT_EQ(beat->time(), 123.5);
  EXPECT_EQ(beat->date(), platform::Date(123.5));
  EXPECT_EQ(beat->copy()->date(), platform::Date(123.5));
}

TEST(TestObjectTest, CodingWritesTheTimeThenTheDate) {
  QSMemoryCoder coder;
  TestObject::initWithAbsoluteTime(99.25)->encodeWithCoder(coder.encoder());
  QSDecoder& in = coder.decoder();
  EXPECT_EQ(in.decodeDouble(), 99.25);
  EXPECT_EQ(in.decodeDate(), platform::Date(99.25));
  EXPECT_EQ(coder.remaining(), 0u);
  coder.rewind();
  EXPECT_EQ(TestObject::initWithCoder(coder.decoder())->time(), 99.25);
}

TEST(TestObjectTest, AnExceptionWhileEncodingIsLoggedAndNotPassedOn) {
  platform::LogCapture log;
  BrokenEncoder encoder;
  EXPECT_NO_THROW(TestObject::initWithAbsoluteTime(5)->encodeWithCoder(encoder));
  EXPECT_EQ(encoder.doubles, std::vector<double>{5});
  EXPECT_EQ(log.count("Exception NSPortTimeoutException, connection timed out"), 1u);
}
