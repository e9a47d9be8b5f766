#include <gtest/gtest.h>

#include <limits>

#include "plugin.h"
#include "report_tree.h"

namespace emberline {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

struct ValueCase {
  const char* what;
  std::shared_ptr<ISerializable> value;
  std::string text, json, csv;
};

TEST(Values, RenderEachForm) {
  const ValueCase cases[] = {
      {"null unit", holding<UnitValue<3, 'W'>>(), "null", "null", "null"},
      {"null percentage", holding<PercentageValue<3>>(), "null", "null", "null"},
      {"null string", holding<StringValue>(), "null", "null", "null"},
      {"uint max", holding<Value<unsigned int>>(4294967295u), "4294967295", "4294967295",
       "4294967295"},
      {"ulong max", holding<Value<unsigned long>>(18446744073709551615ul), "18446744073709551615",
       "18446744073709551615", "18446744073709551615"},
      {"double", holding<Value<double>>(2.5), "2.500000", "2.500000", "2.500000"},
      {"double negative", holding<Value<double>>(-0.25), "-0.250000", "-0.250000", "-0.250000"},
      {"switch on", holding<SwitchValue>(true), "on", "true", "true"},
      {"switch off", holding<SwitchValue>(false), "off", "false", "false"},
      {"timestamp", holding<TimestampValue<3>>(2.5), "2.500", "2.500", "2.500"},
      {"timestamp keeps double precision", holding<TimestampValue<3>>(1700000000.1239),
       "1700000000.124", "1700000000.124", "1700000000.124"},
      {"rounded 1", holding<RoundedValue<1>>(1.5f), "1.5", "1.5", "1.5"},
      // 2.675f is 2.67499995..., so rounding from the stored float goes down.
      {"rounded from exact float", holding<RoundedValue<2>>(2.675f), "2.67", "2.67", "2.67"},
      {"rounded negative", holding<RoundedValue<2>>(-3.14159f), "-3.14", "-3.14", "-3.14"},
      {"never scientific", holding<RoundedValue<1>>(1e10f), "10000000000.0", "10000000000.0",
       "10000000000.0"},
      {"amps", holding<UnitValue<3, 'A'>>(0.125f), "0.125A", "0.125", "0.125"},
      {"volts", holding<UnitValue<3, 'V'>>(4.2f), "4.200V", "4.200", "4.200"},
      {"seconds", holding<UnitValue<3, 'S'>>(1.0f), "1.000S", "1.000", "1.000"},
      {"celsius", holding<UnitValue<2, 'C'>>(36.5f), "36.50C", "36.50", "36.50"},
      {"negative zero keeps sign", holding<UnitValue<3, 'W'>>(-0.0001f), "-0.000W", "-0.000",
       "-0.000"},
      {"gigahertz", holding<GigahertzValue<3>>(1.2f), "1.200Ghz", "1.200", "1.200"},
      {"percentage", holding<PercentageValue<3>>(0.125f), "12.500%", "0.12500", "0.12500"},
      {"percentage full", holding<PercentageValue<3>>(1.0f), "100.000%", "1.00000", "1.00000"},
      {"percentage negative", holding<PercentageValue<3>>(-0.5f), "-50.000%", "-0.50000",
       "-0.50000"},
      // The product is taken in single precision, which rounds 70.3135... down to 70.313.
      {"percentage float product", holding<PercentageValue<3>>(0.703135f), "70.313%", "0.70314",
       "0.70314"},
      {"nan", holding<RoundedValue<2>>(kNan), "nan", "nan", "nan"},
      {"inf unit", holding<UnitValue<3, 'W'>>(kInf), "infW", "inf", "inf"},
      {"minus inf", holding<RoundedValue<1>>(-kInf), "-inf", "-inf", "-inf"},
      {"nan percentage", holding<PercentageValue<3>>(kNan), "nan%", "nan", "nan"},
      {"nan double", holding<Value<double>>(double(kNan)), "nan", "nan", "nan"},
      {"string unquoted but json", holding<StringValue>(std::string("a \"b\", c")), "a \"b\", c",
       "\"a \"b\", c\"", "a \"b\", c"},
      {"empty string", holding<StringValue>(std::string()), "", "\"\"", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.value->to_str(), c.text);
    EXPECT_EQ(c.value->to_inline_str(), c.text);
    EXPECT_EQ(c.value->to_json(), c.json);
    EXPECT_EQ(c.value->to_csv(), c.csv);
  }
}

TEST(Values, SetNullHidesReadingUntilNextSet) {
  auto number = holding<UnitValue<1, 'W'>>(5.0f);
  auto text = holding<StringValue>(std::string("x"));
  number->set_null();
  text->set_null();
  for (const ISerializable* v :
       {static_cast<ISerializable*>(number.get()), static_cast<ISerializable*>(text.get())}) {
    EXPECT_EQ(v->to_str(), "null");
    EXPECT_EQ(v->to_json(), "null");
    EXPECT_EQ(v->to_csv(), "null");
  }
  number->set(6.0f);
  text->set("y");
  EXPECT_EQ(number->to_str(), "6.0W");
  EXPECT_EQ(text->to_json(), "\"y\"");
}

}  // namespace
}  // namespace emberline
