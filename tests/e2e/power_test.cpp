// Power measurement through the real binary, in a frozen headset whose supply files the tests set.

#include <gtest/gtest.h>

#include "harness.h"

namespace {

// With charging going on the USB path comes first; a generic headset measures its input by
// input_current_now. Exponential smoothing has no deviation to report.
TEST(Power, ReadingsBecomeWattsAmpsAndVolts) {
  const std::string supply = "/sys/class/power_supply/";
  e2e::write_file(supply + "battery/current_now", "-500000\n");
  e2e::write_file(supply + "battery/voltage_now", "4000000\n");
  e2e::write_file(supply + "usb/input_current_now", "500000\n");
  e2e::write_file(supply + "usb/current_now", "250000\n");
  e2e::write_file(supply + "usb/voltage_now", "5000000\n");
  auto result = e2e::run({"-c", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  auto out = e2e::lines(result.out);
  ASSERT_EQ(out.size(), 4u) << result.out;
  EXPECT_EQ(out[1],
            "[Power (USB)] raw: 2.500W | current: 0.500A | voltage: 5.000V | smooth: 2.500W | "
            "smooth_stdev: 0.000W");
  EXPECT_EQ(out[2],
            "[Power (BATTERY)] raw: -2.000W | current: -0.500A | voltage: 4.000V | smooth: -2.000W "
            "| smooth_stdev: 0.000W");

  result = e2e::run({"-c", "-t", "1", "--csv", "-e", "0.5"});
  EXPECT_EQ(result.exit_code, 0);
  out = e2e::lines(result.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(
      out[0],
      "sequence,timestamp,device_timestamp,power_usb.raw,power_usb.current,"
      "power_usb.voltage,power_usb.smooth,power.raw,power.current,power.voltage,power.smooth");
  EXPECT_TRUE(out[1].ends_with(",2.500,0.500,5.000,2.500,-2.000,-0.500,4.000,-2.000")) << out[1];
}

TEST(Power, SchemaNamesTheConfiguredSmoothing) {
  EXPECT_NE(e2e::run({"--schema", "-w", "7"})
                .out.find("Power value smoothed using a rolling average window of 7 samples. "
                          "Window size can be set using '-w/--window'\n"),
            std::string::npos);
  EXPECT_NE(e2e::run({"--schema", "-e", "0.5"})
                .out.find("Power value smoothed using exponential smoothing, with an alpha of "
                          "0.500000. Alpha can be set using '-e/--exp-smooth'\n"),
            std::string::npos);
}

}  // namespace
