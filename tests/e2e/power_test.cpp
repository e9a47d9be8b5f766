// Power measurement through the real binary, in a frozen headset whose supply files the tests set.

#include <gtest/gtest.h>

#include "harness.h"

namespace {

// With charging going on the USB path comes first; a generic headset measures its input by
// input_current_now, and a discharging battery's power is negative. (The smoothing's figures are
// the sample path test's, its fields the golden schema's.)
TEST(Power, ReadingsBecomeWattsAmpsAndVolts) {
  const std::string supply = "/sys/class/power_supply/";
  e2e::write_file(supply + "battery/current_now", "-500000\n");
  e2e::write_file(supply + "battery/voltage_now", "4000000\n");
  e2e::write_file(supply + "usb/input_current_now", "500000\n");
  e2e::write_file(supply + "usb/current_now", "250000\n");
  e2e::write_file(supply + "usb/voltage_now", "5000000\n");
  auto result = e2e::run({"-c", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  const auto out = e2e::lines(result.out);
  ASSERT_EQ(out.size(), 4u) << result.out;
  EXPECT_EQ(out[1],
            "[Power (USB)] raw: 2.500W | current: 0.500A | voltage: 5.000V | smooth: 2.500W | "
            "smooth_stdev: 0.000W");
  EXPECT_EQ(out[2],
            "[Power (BATTERY)] raw: -2.000W | current: -0.500A | voltage: 4.000V | smooth: -2.000W "
            "| smooth_stdev: 0.000W");
}

}  // namespace
