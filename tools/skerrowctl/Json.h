// A JSON value for skerrowctl's machine-readable output: built in code,
// written compactly on one line, keys in the order they were added.
//
// A thin layer over nlohmann::ordered_json that keeps the chaining style of
// the commands (`Json::object().set("uid", uid).set("files", n)`); the
// library does the escaping and number formatting.  Whole numbers stay
// integers; a double that is not finite is written as null.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

namespace skerrowctl {

class Json {
 public:
  using Value = nlohmann::ordered_json;

  Json() = default;
  Json(std::nullptr_t) {}
  Json(bool value) : value_(value) {}
  Json(int value) : value_(static_cast<int64_t>(value)) {}
  Json(long value) : value_(static_cast<int64_t>(value)) {}
  Json(long long value) : value_(static_cast<int64_t>(value)) {}
  Json(unsigned value) : value_(static_cast<uint64_t>(value)) {}
  Json(unsigned long value) : value_(static_cast<uint64_t>(value)) {}
  Json(unsigned long long value) : value_(static_cast<uint64_t>(value)) {}
  Json(double value);
  Json(const char* value) : value_(std::string(value)) {}
  Json(std::string value) : value_(std::move(value)) {}
  explicit Json(Value value) : value_(std::move(value)) {}

  static Json object() { return Json(Value::object()); }
  static Json array() { return Json(Value::array()); }
  // Adds a member to an object (answers it, for chaining).
  Json& set(const std::string& key, Json value);
  // Appends to an array.
  Json& push(Json value);

  // One line, no spaces; text that is not valid UTF-8 is written with
  // U+FFFD in place of the bad bytes (file names may hold any bytes).
  std::string dump() const;
  const Value& value() const { return value_; }

 private:
  Value value_;
};

// `text` as a JSON string literal, quotes included.
std::string jsonQuoted(const std::string& text);

}  // namespace skerrowctl
