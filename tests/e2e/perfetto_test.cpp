// -p in a frozen headset whose supply files the test sets: no reports, and a trace file with the
// power counters at the sample rate.

#include <gtest/gtest.h>

#include "harness.h"

namespace {

// Both supplies feed the same four tracks, the USB path first, at every sample: 0, 100, ...
// 1100 ms. A generic headset measures its USB input by input_current_now, and a discharging
// battery's power is negative. (The reports show the same values, in the forms the unit tests
// and the golden schema check.)
TEST(Perfetto, PowerCountersReachTheTraceAtTheSampleRate) {
  const std::string supply = "/sys/class/power_supply/";
  e2e::write_file(supply + "battery/current_now", "-1500000\n");
  e2e::write_file(supply + "battery/voltage_now", "4000000\n");
  e2e::write_file(supply + "usb/input_current_now", "500000\n");
  e2e::write_file(supply + "usb/current_now", "250000\n");
  e2e::write_file(supply + "usb/voltage_now", "5000000\n");
  auto result = e2e::run({"-p", "-t", "1", "-s", "100", "-c", "-e", "0.5"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out, "");
  const std::string path = e2e::only_file(".perfetto-trace");
  EXPECT_TRUE(std::regex_match(
      path, std::regex(R"(/data/local/tmp/emberline-\d{4}(-\d\d){5}\.perfetto-trace)")))
      << path;
  ASSERT_NE(path, "");
  EXPECT_EQ(e2e::lines(result.err)[0], "Trace will be saved to '" + path + "'");
  e2e::expect_each_sample(e2e::counter_events(path),
                          {"Watts 2.5", "Current 0.5", "Voltage 5", "Smoothed Power 2.5",
                           "Watts -6", "Current -1.5", "Voltage 4", "Smoothed Power -6"},
                          12);
}

}  // namespace
