// Records on the bus: the struct types generated from the wire contract,
// filled from (and read into) the records' own port coding.
//
// A record writes its fields once, in encodeWithCoder; the generated struct
// type says which D-Bus type each field has.  toWire plays the record's
// coding stream into the struct, fromWire plays a struct back into the
// record's initWithCoder.  The mapping of coding items to bus types:
//   boolean b, 64-bit integer x, 32-bit unsigned u, double or date d,
//   string s, optional string as (zero or one), dictionary a{sv},
//   object (nested record) a struct of its fields,
//   array of objects a(...), dictionary of objects a{s(...)},
//   dictionary of arrays of objects a{sa(...)}.
// A stream that does not fit the struct raises platform::Exception.
#pragma once

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <sdbus-c++/Types.h>

#include "Engine/records/QSMemoryCoder.h"
#include "ipc/WireTypes.h"
#include "ipc/WireValues.h"
#include "platform/Exception.h"

namespace wire {

template <class T>
struct Field;

template <>
struct Field<bool> {
  static bool read(QSDecoder& d) { return d.decodeBool(); }
  static void write(QSEncoder& e, bool v) { e.encodeBool(v); }
};
template <>
struct Field<int64_t> {
  static int64_t read(QSDecoder& d) { return d.decodeInt64(); }
  static void write(QSEncoder& e, int64_t v) { e.encodeInt64(v); }
};
template <>
struct Field<uint32_t> {
  static uint32_t read(QSDecoder& d) { return d.decodeUInt32(); }
  static void write(QSEncoder& e, uint32_t v) { e.encodeUInt32(v); }
};
template <>
struct Field<double> {
  static double read(QSDecoder& d) { return d.decodeDouble(); }
  static void write(QSEncoder& e, double v) { e.encodeDouble(v); }
};
template <>
struct Field<std::string> {
  static std::string read(QSDecoder& d) { return d.decodeString(); }
  static void write(QSEncoder& e, const std::string& v) { e.encodeString(v); }
};
// An optional string.
template <>
struct Field<std::vector<std::string>> {
  static std::vector<std::string> read(QSDecoder& d) {
    auto v = d.decodeOptionalString();
    return v ? std::vector<std::string>{*v} : std::vector<std::string>{};
  }
  static void write(QSEncoder& e, const std::vector<std::string>& v) {
    e.encodeOptionalString(v.empty() ? std::nullopt : std::optional<std::string>(v.front()));
  }
};
// An optional date: an array of zero or one element.
template <>
struct Field<std::vector<double>> {
  static std::vector<double> read(QSDecoder& d) {
    std::vector<double> out;
    const size_t n = d.beginArray();
    for (size_t i = 0; i < n; ++i) out.push_back(d.decodeDouble());
    d.endArray();
    return out;
  }
  static void write(QSEncoder& e, const std::vector<double>& v) {
    e.beginArray(v.size());
    for (double seconds : v) e.encodeDate(platform::Date(seconds));
    e.endArray();
  }
};
// A property-list dictionary.
template <>
struct Field<std::map<std::string, sdbus::Variant>> {
  static std::map<std::string, sdbus::Variant> read(QSDecoder& d) { return toWireDictionary(d.decodeDictionary()); }
  static void write(QSEncoder& e, const std::map<std::string, sdbus::Variant>& v) {
    e.encodeDictionary(fromWireDictionary(v));
  }
};

// The fields of a record, in order.
template <class... Ts>
void readFields(QSDecoder& d, sdbus::Struct<Ts...>& out) {
  std::apply([&](auto&... field) { ((field = Field<std::decay_t<decltype(field)>>::read(d)), ...); },
             static_cast<std::tuple<Ts...>&>(out));
}
template <class... Ts>
void writeFields(QSEncoder& e, const sdbus::Struct<Ts...>& in) {
  std::apply([&](const auto&... field) { (Field<std::decay_t<decltype(field)>>::write(e, field), ...); },
             static_cast<const std::tuple<Ts...>&>(in));
}

// A nested record.
template <class... Ts>
struct Field<sdbus::Struct<Ts...>> {
  static sdbus::Struct<Ts...> read(QSDecoder& d) {
    d.beginAnyObject();
    sdbus::Struct<Ts...> out;
    readFields(d, out);
    d.endObject();
    return out;
  }
  static void write(QSEncoder& e, const sdbus::Struct<Ts...>& v) {
    e.beginObject("");
    writeFields(e, v);
    e.endObject();
  }
};
// An array of records.
template <class... Ts>
struct Field<std::vector<sdbus::Struct<Ts...>>> {
  static std::vector<sdbus::Struct<Ts...>> read(QSDecoder& d) {
    std::vector<sdbus::Struct<Ts...>> out;
    const size_t n = d.beginArray();
    for (size_t i = 0; i < n; ++i) out.push_back(Field<sdbus::Struct<Ts...>>::read(d));
    d.endArray();
    return out;
  }
  static void write(QSEncoder& e, const std::vector<sdbus::Struct<Ts...>>& v) {
    e.beginArray(v.size());
    for (const auto& item : v) Field<sdbus::Struct<Ts...>>::write(e, item);
    e.endArray();
  }
};
// A dictionary of records, or of arrays of records.
template <class V>
struct Field<std::map<std::string, V>> {
  static std::map<std::string, V> read(QSDecoder& d) {
    std::map<std::string, V> out;
    const size_t n = d.beginDictionary();
    for (size_t i = 0; i < n; ++i) {
      std::string key = d.decodeString();
      out.emplace(std::move(key), Field<V>::read(d));
    }
    d.endDictionary();
    return out;
  }
  static void write(QSEncoder& e, const std::map<std::string, V>& v) {
    e.beginDictionary(v.size());
    for (const auto& [key, item] : v) {
      e.encodeString(key);
      Field<V>::write(e, item);
    }
    e.endDictionary();
  }
};

// The bus struct of a record.
template <class Wire, class Record>
Wire toWire(const Record& record) {
  QSMemoryCoder coder;
  record.encodeWithCoder(coder.encoder());
  Wire out;
  readFields(coder.decoder(), out);
  if (coder.remaining() != 0)
    platform::Exception::raise(kInvalidUnarchiveOperationException, "a record has fields its bus type has not");
  return out;
}

// The record of a bus struct.
template <class Record, class Wire>
auto fromWire(const Wire& in) {
  QSMemoryCoder coder;
  writeFields(coder.encoder(), in);
  auto record = Record::initWithCoder(coder.decoder());
  if (coder.remaining() != 0)
    platform::Exception::raise(kInvalidUnarchiveOperationException, "a bus record has fields its record has not");
  return record;
}

// A database (uid to entry) as the bus dictionary of entry structs.
template <class Database>
DatabaseWire toWireDatabase(const Database& database) {
  DatabaseWire out;
  for (const auto& [uid, entry] : database) out.emplace(uid, toWire<EntryWire>(*entry));
  return out;
}

}  // namespace wire
