#include "json/json_val.h"

#include <cmath>
#include <new>
#include <utility>

namespace coralis::tidemark::json {

JsonVal::JsonVal(std::string value) : kind(STRING_KIND) {
  new (&string_value) std::string(std::move(value));
}

JsonVal::JsonVal(Array value) : kind(ARRAY_KIND) {
  new (&array_value) Array(std::move(value));
}

JsonVal::JsonVal(Object value) : kind(OBJECT_KIND) {
  new (&object_value) Object(std::move(value));
}

JsonVal& JsonVal::operator=(JsonVal other) noexcept {
  clear();
  assign(std::move(other));
  return *this;
}

template <typename Source>
void JsonVal::take(Source&& other) {
  clear();
  switch (other.kind) {
    case BOOL_KIND:
      bool_value = other.bool_value;
      break;
    case INT_KIND:
      int_value = other.int_value;
      break;
    case DOUBLE_KIND:
      double_value = other.double_value;
      break;
    case STRING_KIND:
      new (&string_value) std::string(std::forward<Source>(other).string_value);
      break;
    case ARRAY_KIND:
      new (&array_value) Array(std::forward<Source>(other).array_value);
      break;
    case OBJECT_KIND:
      new (&object_value) Object(std::forward<Source>(other).object_value);
      break;
    default:
      break;
  }
  kind = other.kind;
}

void JsonVal::assign(const JsonVal& other) {
  take(other);
}

void JsonVal::assign(JsonVal&& other) noexcept {
  take(std::move(other));
  other.clear();
}

void JsonVal::clear() noexcept {
  switch (kind) {
    case STRING_KIND:
      string_value.~basic_string();
      break;
    case ARRAY_KIND:
      array_value.~Array();
      break;
    case OBJECT_KIND:
      object_value.~Object();
      break;
    default:
      break;
  }
  kind = NULL_KIND;
}

void JsonVal::print(std::ostream& out) const {
  switch (kind) {
    case BOOL_KIND:
      out << (bool_value ? "true" : "false");
      break;
    case INT_KIND:
      out << int_value;
      break;
    case DOUBLE_KIND:
      if (std::isfinite(double_value)) {
        out << double_value;
      } else {
        out << "null";
      }
      break;
    case STRING_KIND:
      out << '"' << escape(string_value) << '"';
      break;
    case ARRAY_KIND: {
      out << '[';
      const char* separator = "";
      for (const JsonVal& element : array_value) {
        out << separator;
        element.print(out);
        separator = ",";
      }
      out << ']';
      break;
    }
    case OBJECT_KIND: {
      out << '{';
      const char* separator = "";
      for (const auto& [key, value] : object_value) {
        out << separator << '"' << escape(key) << "\":";
        value.print(out);
        separator = ",";
      }
      out << '}';
      break;
    }
    default:
      out << "null";
      break;
  }
}

std::string escape(const std::string_view& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c != '\\' && c != '"') {
      out += c;
    } else if (c == '\\' && i + 1 < text.size() && (text[i + 1] == '\\' || text[i + 1] == '"')) {
      // Already an escaped pair: keep both, so that escaping is idempotent.
      out += c;
      out += text[++i];
    } else {
      out += '\\';
      out += c;
    }
  }
  return out;
}

}  // namespace coralis::tidemark::json
