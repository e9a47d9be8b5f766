// A chipset-2 headset measures USB by current_now and has the Quillon options.

#include <gtest/gtest.h>

#include "harness.h"

namespace {

TEST(Fennick, UsbPathReadsCurrentNow) {
  e2e::write_file("/sys/class/power_supply/usb/input_current_now", "500000\n");
  e2e::write_file("/sys/class/power_supply/usb/current_now", "250000\n");
  e2e::write_file("/sys/class/power_supply/usb/voltage_now", "5000000\n");
  auto result = e2e::run({"-c", "-t", "1", "--no-power", "--help"});
  EXPECT_NE(result.out.find("--quillon-dram-ms"), std::string::npos);
  result = e2e::run({"-c", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  auto out = e2e::lines(result.out);
  ASSERT_GT(out.size(), 1u);
  EXPECT_EQ(out[1].substr(0, 58), "[Power (USB)] raw: 1.250W | current: 0.250A | voltage: 5.0");
}

}  // namespace
