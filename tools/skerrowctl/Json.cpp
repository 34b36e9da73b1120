#include "tools/skerrowctl/Json.h"

#include <cmath>
#include <cstdio>

namespace skerrowctl {

Json& Json::set(std::string key, Json value) {
  std::get<Object>(value_).emplace_back(std::move(key), std::move(value));
  return *this;
}

Json& Json::push(Json value) {
  std::get<Array>(value_).push_back(std::move(value));
  return *this;
}

std::string jsonQuoted(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string Json::dump() const {
  struct Writer {
    std::string operator()(std::nullptr_t) const { return "null"; }
    std::string operator()(bool b) const { return b ? "true" : "false"; }
    std::string operator()(int64_t n) const { return std::to_string(n); }
    std::string operator()(double d) const {
      if (!std::isfinite(d)) return "null";
      char text[32];
      std::snprintf(text, sizeof text, "%.17g", d);
      return text;
    }
    std::string operator()(const std::string& s) const { return jsonQuoted(s); }
    std::string operator()(const Array& a) const {
      std::string out = "[";
      for (size_t i = 0; i < a.size(); ++i) out += (i ? "," : "") + a[i].dump();
      return out + "]";
    }
    std::string operator()(const Object& o) const {
      std::string out = "{";
      for (size_t i = 0; i < o.size(); ++i) out += (i ? "," : "") + jsonQuoted(o[i].first) + ":" + o[i].second.dump();
      return out + "}";
    }
  };
  return std::visit(Writer{}, value_);
}

}  // namespace skerrowctl
