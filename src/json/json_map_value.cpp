#include "json/json_map_value.h"

#include <sstream>
#include <utility>

namespace emberline {

using coralis::tidemark::json::JsonVal;

void JsonMapValue::set(const std::string& key, JsonVal value) {
  JsonVal& entry = entries[key];
  entry.clear();
  entry.assign(std::move(value));
}

std::string JsonMapValue::to_str() const {
  std::string out;
  bool first = true;
  for (const auto& [key, value] : entries) {
    if (!first) out += " | ";
    first = false;
    std::ostringstream text;
    value.print(text);
    out += key;
    out += ':';
    out += text.str();
  }
  return out;
}

std::string JsonMapValue::to_json() const {
  // An empty map stays null rather than becoming "{}".
  JsonVal all;
  for (const auto& [key, value] : entries) {
    if (all.kind != JsonVal::OBJECT_KIND) all = JsonVal(JsonVal::Object{});
    all.object_value[key].assign(value);
  }
  std::ostringstream text;
  all.print(text);
  return text.str();
}

std::string JsonMapValue::to_csv() const {
  const std::string json = to_json();
  std::string out = "\"";
  for (std::size_t i = 0; i < json.size(); ++i) {
    out += json[i];
    if (json[i] != '"') continue;
    // A pair of quotes counts as one already doubled.
    if (i + 1 < json.size() && json[i + 1] == '"') {
      out += json[++i];
    } else {
      out += '"';
    }
  }
  out += '"';
  return out;
}

}  // namespace emberline
