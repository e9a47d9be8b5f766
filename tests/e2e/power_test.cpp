// Power measurement through the real binary, in a frozen headset whose supply files the tests set.

#include <gtest/gtest.h>

#include "harness.h"

namespace {

const std::string kBattery = "/sys/class/power_supply/battery/";
const std::string kUsb = "/sys/class/power_supply/usb/";

void set_supply(const std::string& dir, const std::string& file, long value) {
  e2e::write_file(dir + file, std::to_string(value) + "\n");
}

std::string second_line_of_first_report(const e2e::Result& result) {
  auto out = e2e::lines(result.out);
  return out.size() > 1 ? out[1] : "";
}

TEST(Power, ReadingsBecomeWattsAmpsAndVolts) {
  struct Case {
    long current, voltage;
    std::vector<std::string> extra;
    std::string line;
  } cases[] = {
      {-500000,
       4000000,
       {},
       "[Power (BATTERY)] raw: -2.000W | current: -0.500A | voltage: 4.000V | smooth: -2.000W | "
       "smooth_stdev: 0.000W"},
      {1500000,
       4000000,
       {"-e", "0.5"},
       "[Power (BATTERY)] raw: 6.000W | current: 1.500A | voltage: 4.000V | smooth: 6.000W"},
  };
  for (const auto& c : cases) {
    set_supply(kBattery, "current_now", c.current);
    set_supply(kBattery, "voltage_now", c.voltage);
    std::vector<std::string> args{"-t", "1"};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    auto result = e2e::run(args);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(second_line_of_first_report(result), c.line);
  }
}

TEST(Power, ContinueChargingAddsTheUsbPathFirst) {
  set_supply(kBattery, "current_now", 1000000);
  set_supply(kBattery, "voltage_now", 4000000);
  set_supply(kUsb, "input_current_now", 500000);
  set_supply(kUsb, "current_now", 250000);
  set_supply(kUsb, "voltage_now", 5000000);
  auto result = e2e::run({"-c", "-t", "1", "--csv"});
  EXPECT_EQ(result.exit_code, 0);
  auto out = e2e::lines(result.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0],
            "sequence,timestamp,device_timestamp,power_usb.raw,power_usb.current,"
            "power_usb.voltage,power_usb.smooth,power_usb.smooth_stdev,power.raw,power.current,"
            "power.voltage,power.smooth,power.smooth_stdev");
  // A generic headset measures USB input by input_current_now.
  EXPECT_NE(out[1].find(",2.500,0.500,5.000,2.500,0.000,4.000,1.000,4.000,4.000,0.000"),
            std::string::npos)
      << out[1];
}

TEST(Power, MissingFileStopsTheStartWithChargingUntouched) {
  std::remove((kBattery + "voltage_now").c_str());
  auto result = e2e::run({"-t", "1"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "Failed to open file at '/sys/class/power_supply/battery/voltage_now'\n"
            "ERROR: Failed to initialize plugin 'power'\n");
}

TEST(Power, SchemaNamesTheConfiguredSmoothing) {
  struct Case {
    std::vector<std::string> args;
    std::string text;
  } cases[] = {
      {{"--schema"},
       "Power value smoothed using a rolling average window of 20 samples. Window size can be set "
       "using '-w/--window'\n"},
      {{"--schema", "-w", "7"}, "rolling average window of 7 samples."},
      {{"--schema", "-e", "0.5"},
       "Power value smoothed using exponential smoothing, with an alpha of 0.500000. Alpha can be "
       "set using '-e/--exp-smooth'\n"},
  };
  for (const auto& c : cases) {
    auto result = e2e::run(c.args);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_NE(result.out.find(c.text), std::string::npos) << result.out;
  }
}

}  // namespace
