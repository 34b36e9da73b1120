// The port coding of records that cross the connection: an ordered, unkeyed
// stream of typed items.  A record writes its fields in a fixed order and
// reads them back in the same order.
//
// Items are scalars (boolean, signed 64-bit, unsigned 32-bit, double),
// strings (present, or "optional": a string or nothing), dates, property-list
// dictionaries, and three kinds of bracket: arrays and dictionaries (a count,
// then that many elements; a dictionary element is a string key followed by
// the value) and objects (a record's own fields, between beginObject and
// endObject, named by the record's class).  A bus implementation maps the
// brackets onto its containers; the in-memory coder records them.
//
// A decoder raises platform::Exception ("NSInvalidUnarchiveOperationException")
// when the stream does not hold the item asked for, so a reader never sees
// half a record.  A date is its seconds since the reference date: a date
// item reads as a double and a double item as a date.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Date.h"
#include "platform/Value.h"

inline constexpr const char* kInvalidUnarchiveOperationException = "NSInvalidUnarchiveOperationException";

class QSEncoder {
 public:
  virtual ~QSEncoder() = default;

  // Whether the receiving side asked for objects by reference.  Records
  // that travel by copy by default check this to decide.
  virtual bool isByref() const = 0;

  virtual void encodeBool(bool value) = 0;
  virtual void encodeInt64(int64_t value) = 0;
  virtual void encodeUInt32(uint32_t value) = 0;
  virtual void encodeDouble(double value) = 0;
  virtual void encodeString(const std::string& value) = 0;
  virtual void encodeOptionalString(const std::optional<std::string>& value) = 0;
  virtual void encodeDate(platform::Date value) = 0;
  virtual void encodeDictionary(const platform::Dictionary& value) = 0;

  virtual void beginArray(size_t count) = 0;
  virtual void endArray() = 0;
  virtual void beginDictionary(size_t count) = 0;
  virtual void endDictionary() = 0;
  virtual void beginObject(const std::string& className) = 0;
  virtual void endObject() = 0;

  // A record between its object brackets.
  template <class Record>
  void encodeObject(const std::string& className, const Record& record) {
    beginObject(className);
    record.encodeWithCoder(*this);
    endObject();
  }
};

class QSDecoder {
 public:
  virtual ~QSDecoder() = default;

  virtual bool decodeBool() = 0;
  virtual int64_t decodeInt64() = 0;
  virtual uint32_t decodeUInt32() = 0;
  virtual double decodeDouble() = 0;
  virtual std::string decodeString() = 0;
  virtual std::optional<std::string> decodeOptionalString() = 0;
  virtual platform::Date decodeDate() = 0;
  virtual platform::Dictionary decodeDictionary() = 0;

  // Answer the element count.
  virtual size_t beginArray() = 0;
  virtual void endArray() = 0;
  virtual size_t beginDictionary() = 0;
  virtual void endDictionary() = 0;
  // Checks that the next object is of `className`.
  virtual void beginObject(const std::string& className) = 0;
  // Takes the next object's opening whatever its class; answers the class name
  // (empty for a record that came over the bus, which carries none).
  virtual std::string beginAnyObject() = 0;
  virtual void endObject() = 0;

  // A record made by Record::initWithCoder between its object brackets.
  template <class Record>
  auto decodeObject(const std::string& className) {
    beginObject(className);
    auto record = Record::initWithCoder(*this);
    endObject();
    return record;
  }
};
