#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace coralis::tidemark::json {

// A compact JSON value. The union keeps a value as small as its largest content, so that maps
// of many small entries stay cheap; `kind` says which member is alive.
class JsonVal {
 public:
  enum Kind : std::uint32_t {
    NULL_KIND = 0,
    BOOL_KIND = 1,
    INT_KIND = 2,
    DOUBLE_KIND = 3,
    STRING_KIND = 4,
    ARRAY_KIND = 5,
    OBJECT_KIND = 6,
  };
  using Array = std::vector<JsonVal>;
  using Object = std::map<std::string, JsonVal>;

  JsonVal() noexcept : kind(NULL_KIND) {}
  explicit JsonVal(bool value) noexcept : kind(BOOL_KIND), bool_value(value) {}
  explicit JsonVal(int value) noexcept : JsonVal(static_cast<long>(value)) {}
  explicit JsonVal(long value) noexcept : kind(INT_KIND), int_value(value) {}
  explicit JsonVal(double value) noexcept : kind(DOUBLE_KIND), double_value(value) {}
  explicit JsonVal(std::string value);
  explicit JsonVal(const char* value) : JsonVal(std::string(value)) {}
  explicit JsonVal(Array value);
  explicit JsonVal(Object value);

  JsonVal(const JsonVal& other) : JsonVal() { assign(other); }
  JsonVal(JsonVal&& other) noexcept : JsonVal() { assign(std::move(other)); }
  // Copy and move alike: `other` is made before this value is cleared, since it may live inside
  // this value's own contents.
  JsonVal& operator=(JsonVal other) noexcept;
  virtual ~JsonVal() { clear(); }

  // Deep copy into this value; whatever it held before is freed first.
  void assign(const JsonVal& other);
  // Takes over `other`'s contents and leaves it null.
  void assign(JsonVal&& other) noexcept;
  void clear() noexcept;
  // Compact JSON: no blanks, no line ends.
  void print(std::ostream& out) const;

  std::uint32_t kind;
  union {
    bool bool_value;
    long int_value;
    double double_value;
    std::string string_value;
    Array array_value;
    Object object_value;
  };

 private:
  // What both assigns do, for a const source (copied) or an rvalue one (moved from).
  template <typename Source>
  void take(Source&& other);
};

// Backslash before each double quote or backslash that is not already escaped, so that escaping
// twice changes nothing.
std::string escape(const std::string_view& text);

}  // namespace coralis::tidemark::json
