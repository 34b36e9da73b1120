#include "tools/skerrowctl/Json.h"

#include <cmath>

namespace skerrowctl {

Json::Json(double value) {
  if (std::isfinite(value)) value_ = value;
}

Json& Json::set(const std::string& key, Json value) {
  value_[key] = std::move(value.value_);
  return *this;
}

Json& Json::push(Json value) {
  value_.push_back(std::move(value.value_));
  return *this;
}

std::string Json::dump() const { return value_.dump(-1, ' ', false, Value::error_handler_t::replace); }

std::string jsonQuoted(const std::string& text) { return Json(text).dump(); }

}  // namespace skerrowctl
