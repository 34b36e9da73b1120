// A JSON value for skerrowctl's machine-readable output: built in code,
// written compactly on one line, keys in the order they were added.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace skerrowctl {

class Json {
 public:
  using Array = std::vector<Json>;
  using Object = std::vector<std::pair<std::string, Json>>;

  Json() : value_(nullptr) {}
  Json(std::nullptr_t) : value_(nullptr) {}
  Json(bool value) : value_(value) {}
  Json(int value) : value_(static_cast<int64_t>(value)) {}
  Json(int64_t value) : value_(value) {}
  Json(uint64_t value) : value_(static_cast<int64_t>(value)) {}
  Json(uint32_t value) : value_(static_cast<int64_t>(value)) {}
  Json(double value) : value_(value) {}
  Json(const char* value) : value_(std::string(value)) {}
  Json(std::string value) : value_(std::move(value)) {}
  Json(Array value) : value_(std::move(value)) {}
  Json(Object value) : value_(std::move(value)) {}

  static Json object() { return Json(Object{}); }
  static Json array() { return Json(Array{}); }
  // Adds a member to an object (answers it, for chaining).
  Json& set(std::string key, Json value);
  // Appends to an array.
  Json& push(Json value);

  std::string dump() const;

 private:
  std::variant<std::nullptr_t, bool, int64_t, double, std::string, Array, Object> value_;
};

// `text` as a JSON string literal, quotes included.
std::string jsonQuoted(const std::string& text);

}  // namespace skerrowctl
