#include "Engine/records/QSMemoryCoder.h"

#include "platform/Exception.h"

namespace {
struct ArrayBegin {
  size_t count;
};
struct ArrayEnd {};
struct DictionaryBegin {
  size_t count;
};
struct DictionaryEnd {};
struct ObjectBegin {
  std::string className;
};
struct ObjectEnd {};
using Item = std::variant<bool, int64_t, uint32_t, double, std::string, std::optional<std::string>, platform::Date,
                          platform::Dictionary, ArrayBegin, ArrayEnd, DictionaryBegin, DictionaryEnd, ObjectBegin,
                          ObjectEnd>;
}  // namespace

struct QSMemoryCoder::Stream {
  bool byref = false;
  std::vector<Item> items;
  size_t position = 0;

  template <class T, class V>
  void put(V&& value) {
    items.emplace_back(std::in_place_type<T>, std::forward<V>(value));
  }

  template <class T>
  bool next() const {
    return position < items.size() && std::holds_alternative<T>(items[position]);
  }

  template <class T>
  T take(const char* what) {
    if (position >= items.size())
      platform::Exception::raise(kInvalidUnarchiveOperationException, "expected a %s, found the end of the stream",
                                 what);
    T* value = std::get_if<T>(&items[position]);
    if (!value)
      platform::Exception::raise(kInvalidUnarchiveOperationException, "expected a %s at item %zu", what, position);
    ++position;
    return *value;
  }
};

class QSMemoryCoder::Encoder : public QSEncoder {
 public:
  explicit Encoder(Stream& s) : s_(s) {}
  bool isByref() const override { return s_.byref; }
  void encodeBool(bool value) override { s_.put<bool>(value); }
  void encodeInt64(int64_t value) override { s_.put<int64_t>(value); }
  void encodeUInt32(uint32_t value) override { s_.put<uint32_t>(value); }
  void encodeDouble(double value) override { s_.put<double>(value); }
  void encodeString(const std::string& value) override { s_.put<std::string>(value); }
  void encodeOptionalString(const std::optional<std::string>& value) override {
    s_.put<std::optional<std::string>>(value);
  }
  void encodeDate(platform::Date value) override { s_.put<platform::Date>(value); }
  void encodeDictionary(const platform::Dictionary& value) override { s_.put<platform::Dictionary>(value); }
  void beginArray(size_t count) override { s_.put<ArrayBegin>(ArrayBegin{count}); }
  void endArray() override { s_.put<ArrayEnd>(ArrayEnd{}); }
  void beginDictionary(size_t count) override { s_.put<DictionaryBegin>(DictionaryBegin{count}); }
  void endDictionary() override { s_.put<DictionaryEnd>(DictionaryEnd{}); }
  void beginObject(const std::string& className) override { s_.put<ObjectBegin>(ObjectBegin{className}); }
  void endObject() override { s_.put<ObjectEnd>(ObjectEnd{}); }

 private:
  Stream& s_;
};

class QSMemoryCoder::Decoder : public QSDecoder {
 public:
  explicit Decoder(Stream& s) : s_(s) {}
  bool decodeBool() override { return s_.take<bool>("boolean"); }
  int64_t decodeInt64() override { return s_.take<int64_t>("64-bit integer"); }
  uint32_t decodeUInt32() override { return s_.take<uint32_t>("32-bit unsigned integer"); }
  double decodeDouble() override {
    if (s_.next<platform::Date>()) return s_.take<platform::Date>("date").timeIntervalSinceReferenceDate();
    return s_.take<double>("double");
  }
  std::string decodeString() override { return s_.take<std::string>("string"); }
  std::optional<std::string> decodeOptionalString() override {
    return s_.take<std::optional<std::string>>("optional string");
  }
  platform::Date decodeDate() override {
    if (s_.next<double>()) return platform::Date(s_.take<double>("double"));
    return s_.take<platform::Date>("date");
  }
  platform::Dictionary decodeDictionary() override { return s_.take<platform::Dictionary>("dictionary"); }
  size_t beginArray() override { return s_.take<ArrayBegin>("array").count; }
  void endArray() override { s_.take<ArrayEnd>("end of array"); }
  size_t beginDictionary() override { return s_.take<DictionaryBegin>("dictionary of records").count; }
  void endDictionary() override { s_.take<DictionaryEnd>("end of dictionary"); }
  std::string beginAnyObject() override { return s_.take<ObjectBegin>("object").className; }
  void beginObject(const std::string& className) override {
    const ObjectBegin begin = s_.take<ObjectBegin>("object");
    // An object opened without a class name (a record from the bus) is taken as the one asked for.
    if (!begin.className.empty() && begin.className != className) {
      --s_.position;
      platform::Exception::raise(kInvalidUnarchiveOperationException, "expected an object of class %s, found %s",
                                 className.c_str(), begin.className.c_str());
    }
  }
  void endObject() override { s_.take<ObjectEnd>("end of object"); }

 private:
  Stream& s_;
};

QSMemoryCoder::QSMemoryCoder(bool byref)
    : stream_(std::make_unique<Stream>()),
      encoder_(std::make_unique<Encoder>(*stream_)),
      decoder_(std::make_unique<Decoder>(*stream_)) {
  stream_->byref = byref;
}

QSMemoryCoder::~QSMemoryCoder() = default;

QSEncoder& QSMemoryCoder::encoder() { return *encoder_; }
QSDecoder& QSMemoryCoder::decoder() { return *decoder_; }
size_t QSMemoryCoder::itemCount() const { return stream_->items.size(); }
size_t QSMemoryCoder::remaining() const { return stream_->items.size() - stream_->position; }

void QSMemoryCoder::dropFirstItem() {
  if (!stream_->items.empty()) stream_->items.erase(stream_->items.begin());
  stream_->position = 0;
}

void QSMemoryCoder::rewind() { stream_->position = 0; }
