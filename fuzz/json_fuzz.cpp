// JSON values as the report prints them: texts from outside (process names, DSP task names)
// become keys and strings. The input builds a value tree; its printed form must be well-formed
// JSON, and escaping must stay idempotent.

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>

#include "fuzz_input.h"
#include "json/json_map_value.h"
#include "json/json_val.h"

namespace {

using coralis::tidemark::json::escape;
using coralis::tidemark::json::JsonVal;

class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : data(data), size(size) {}
  bool empty() const { return at >= size; }
  std::uint8_t byte() { return at < size ? data[at++] : 0; }
  // A text of up to 15 bytes, its length in the low bits of the byte before it.
  std::string text() {
    const std::size_t length = std::min<std::size_t>(byte() & 15, size - std::min(at, size));
    std::string out(reinterpret_cast<const char*>(data + at), length);
    at += length;
    return out;
  }
  JsonVal value(int depth) {
    const std::uint8_t kind = byte();
    switch (kind % 7) {
      case 1:
        return JsonVal(kind > 128);
      case 2: {
        long number = 0;
        for (int i = 0; i < 8; ++i) number = static_cast<long>((number << 8) | byte());
        return JsonVal(number);
      }
      case 3: {
        double number = 0;
        std::uint8_t bytes[8];
        for (auto& b : bytes) b = byte();
        std::memcpy(&number, bytes, sizeof number);
        return JsonVal(number);
      }
      case 4:
        return JsonVal(text());
      case 5: {
        JsonVal::Array array;
        for (int n = byte() % 4; n > 0 && depth < 8 && !empty(); --n) {
          array.push_back(value(depth + 1));
        }
        return JsonVal(std::move(array));
      }
      case 6: {
        JsonVal::Object object;
        for (int n = byte() % 4; n > 0 && depth < 8 && !empty(); --n) {
          std::string key = text();
          object[key] = value(depth + 1);
        }
        return JsonVal(std::move(object));
      }
      default:
        return JsonVal();
    }
  }

 private:
  const std::uint8_t* data;
  std::size_t size;
  std::size_t at = 0;
};

// A JSON checker that, as the printer does, lets control characters stand in strings unescaped.
class Checker {
 public:
  explicit Checker(std::string_view text) : text(text) {}
  bool whole() { return value() && at == text.size(); }

 private:
  bool value() {
    if (at >= text.size()) return false;
    switch (text[at]) {
      case '{':
        return members('}', true);
      case '[':
        return members(']', false);
      case '"':
        return string();
      case 't':
        return word("true");
      case 'f':
        return word("false");
      case 'n':
        return word("null");
      default:
        return number();
    }
  }
  bool members(char close, bool keyed) {
    ++at;
    if (at < text.size() && text[at] == close) return ++at, true;
    for (;;) {
      if (keyed && !(string() && at < text.size() && text[at++] == ':')) return false;
      if (!value() || at >= text.size()) return false;
      const char next = text[at++];
      if (next == close) return true;
      if (next != ',') return false;
    }
  }
  bool string() {
    if (at >= text.size() || text[at] != '"') return false;
    for (++at; at < text.size(); ++at) {
      if (text[at] == '"') return ++at, true;
      // Only the two escapes the printer makes.
      if (text[at] == '\\' && (++at >= text.size() || (text[at] != '"' && text[at] != '\\'))) {
        return false;
      }
    }
    return false;
  }
  bool word(std::string_view expected) {
    if (text.substr(at, expected.size()) != expected) return false;
    at += expected.size();
    return true;
  }
  bool number() {
    const std::size_t start = at;
    while (at < text.size() && std::strchr("+-0123456789.eE", text[at]) != nullptr) ++at;
    return at > start;
  }

  std::string_view text;
  std::size_t at = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view raw(reinterpret_cast<const char*>(data), size);
  const std::string once = escape(raw);
  fuzz::check(escape(once) == once, "escaping twice changes nothing");
  fuzz::check(Checker('"' + once + '"').whole(), "an escaped text is one JSON string");

  Reader reader(data, size);
  const JsonVal tree = reader.value(0);
  // Copies and moves of the union keep what they hold.
  JsonVal copy = tree;
  JsonVal moved = std::move(copy);
  std::ostringstream printed, printed_again;
  tree.print(printed);
  moved.print(printed_again);
  fuzz::check(printed.str() == printed_again.str(), "a copy prints as its original");
  fuzz::check(Checker(printed.str()).whole(), "printed JSON is well-formed");

  emberline::JsonMapValue map;
  Reader keys(data, size);
  for (int n = 0; n < 4 && !keys.empty(); ++n) map.set(keys.text(), keys.value(6));
  const std::string json = map.to_json();
  fuzz::check(map.entries.empty() ? json == "null" : Checker(json).whole(), "map JSON");
  return 0;
}
