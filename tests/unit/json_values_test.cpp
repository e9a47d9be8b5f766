#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "json/json_map_value.h"
#include "json/json_val.h"

namespace {

using coralis::tidemark::json::escape;
using coralis::tidemark::json::JsonVal;

std::string printed(const JsonVal& v) {
  std::ostringstream out;
  v.print(out);
  return out.str();
}

TEST(JsonEscape, QuotesAndBackslashesGainOneBackslashUnlessAlreadyPaired) {
  struct Case {
    std::string in, out;
  } cases[] = {
      // clang-format off
      {R"(a"b)", R"(a\"b)"}, {R"(a\b)", R"(a\\b)"}, {R"(a\"b)", R"(a\"b)"}, {R"(a\)", R"(a\\)"},
      {"", ""}, {R"(")", R"(\")"}, {R"(\\\)", R"(\\\\)"}, {R"("\")", R"(\"\")"},
      {"tab\tand\nline", "tab\tand\nline"}, {R"(\x\)", R"(\\x\\)"}, {"\"\"", R"(\"\")"},
      // clang-format on
  };
  for (const auto& c : cases) {
    EXPECT_EQ(escape(c.in), c.out) << c.in;
    EXPECT_EQ(escape(c.out), c.out) << "escaping twice changed " << c.out;
  }
}

TEST(JsonVal, PrintsEachKindCompactly) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  JsonVal::Object object;
  object.emplace("b", JsonVal(1));
  object.emplace("a", JsonVal("x\"y"));
  object.emplace("", JsonVal());
  JsonVal::Array nested;
  nested.emplace_back(JsonVal(JsonVal::Array{}));
  nested.emplace_back(JsonVal(JsonVal::Object{}));
  nested.emplace_back(JsonVal(false));
  struct Case {
    JsonVal value;
    std::string out;
  } cases[] = {
      // clang-format off
      {JsonVal(), "null"}, {JsonVal(true), "true"}, {JsonVal(false), "false"},
      {JsonVal(-42L), "-42"}, {JsonVal(std::numeric_limits<long>::min()), "-9223372036854775808"},
      {JsonVal(0.5), "0.5"}, {JsonVal(1.0 / 3.0), "0.333333"}, {JsonVal(1e20), "1e+20"},
      {JsonVal(kInf), "null"}, {JsonVal(-kInf), "null"}, {JsonVal(std::nan("")), "null"},
      // clang-format on
      {JsonVal("say \"hi\"\\"), R"("say \"hi\"\\")"},
      {JsonVal(JsonVal::Array{JsonVal(7)}), "[7]"},
      {JsonVal(JsonVal::Array{JsonVal(1), JsonVal("s"), JsonVal()}), R"([1,"s",null])"},
      {JsonVal(nested), "[[],{},false]"},
      {JsonVal(object), R"({"":null,"a":"x\"y","b":1})"},
  };
  for (const auto& c : cases) EXPECT_EQ(printed(c.value), c.out);
}

TEST(JsonVal, CopiesAreDeepAndMovesLeaveNull) {
  JsonVal original(JsonVal::Object{{"k", JsonVal(JsonVal::Array{JsonVal("v")})}});
  JsonVal copy;
  copy.assign(original);
  original.object_value["k"].array_value.emplace_back(2);
  original.object_value.emplace("extra", JsonVal(true));
  EXPECT_EQ(printed(copy), R"({"k":["v"]})");

  JsonVal taken(5);
  taken.assign(std::move(original));
  EXPECT_EQ(original.kind, JsonVal::NULL_KIND);
  EXPECT_EQ(printed(taken), R"({"extra":true,"k":["v",2]})");

  taken = taken.object_value["k"];  // a value taking one of its own parts
  EXPECT_EQ(printed(taken), R"(["v",2])");
  taken.clear();
  EXPECT_EQ(printed(taken), "null");
}

// Entries print in key order, and a key set again keeps only its last value, of whatever kind.
TEST(JsonMapValue, FormsOfTheMap) {
  struct Case {
    std::vector<std::pair<std::string, JsonVal>> entries;
    std::string text, json, csv;
  } cases[] = {
      // clang-format off
      {{}, "", "null", R"("null")"},
      {{{"zygote", JsonVal(3)}, {"sh", JsonVal(12)}}, "sh:12 | zygote:3", R"({"sh":12,"zygote":3})",
       R"("{""sh"":12,""zygote"":3}")"},
      {{{"", JsonVal(1)}}, ":1", R"({"":1})", R"("{"":1}")"},
      {{{"a\"b", JsonVal(2.5)}, {"B", JsonVal("x,y")}}, "B:\"x,y\" | a\"b:2.5",
       R"({"B":"x,y","a\"b":2.5})", R"("{""B"":""x,y"",""a\""b"":2.5}")"},
      {{{"k", JsonVal(JsonVal::Array{JsonVal(1), JsonVal(2)})}, {"k", JsonVal("now")}}, "k:\"now\"",
       R"({"k":"now"})", R"("{""k"":""now""}")"},
      // clang-format on
  };
  for (const auto& c : cases) {
    emberline::JsonMapValue map;
    for (const auto& [key, value] : c.entries) map.set(key, value);
    EXPECT_EQ(map.to_str(), c.text);
    EXPECT_EQ(map.to_inline_str(), c.text);
    EXPECT_EQ(map.to_json(), c.json);
    EXPECT_EQ(map.to_csv(), c.csv);
  }
}

}  // namespace
