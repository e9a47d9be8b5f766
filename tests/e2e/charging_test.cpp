// What the tool writes to the charging nodes, as the simulated headset recorded it.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "harness.h"

namespace {

const char* const kNodes[] = {
    "/sys/class/qcom-battery/input_suspend",
    "/sys/class/power_supply/battery/input_suspend",
    "/sys/class/power_supply/usb/input_suspend",
    "/sys/class/power_supply/wireless/input_suspend",
};

// "PATH OFFSET HEX" of each recorded write, without its time. The sim logs a write a moment
// after the tool made it, so this waits (boundedly) until `count` writes are there.
std::vector<std::string> recorded_writes(std::size_t count) {
  const std::string log = std::string(std::getenv("EMBERLINE_SIM_STATE")) + "/writes.log";
  std::vector<std::string> writes;
  for (int attempt = 0; attempt < 500; ++attempt) {
    writes.clear();
    for (const auto& line : e2e::lines(e2e::read_file(log))) {
      writes.push_back(line.substr(line.find(' ') + 1));
    }
    if (writes.size() >= count) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return writes;
}

TEST(Charging, SuspendedForTheRunAndResumedAfterIt) {
  // Runs that never reach the loop, or keep charging, must write nothing at all.
  e2e::run({"--no-power", "-c", "-t", "1"});
  e2e::run({"--no-power", "--schema"});
  e2e::run({"-s", "2000"});
  std::remove("/sys/class/power_supply/battery/voltage_now");
  EXPECT_EQ(e2e::run({"-t", "1"}).exit_code, 1);

  auto result = e2e::run({"--no-power", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  std::vector<std::string> expected;
  for (const char* byte : {"31", "30"}) {
    for (const char* node : kNodes) expected.push_back(std::string(node) + " 0 " + byte);
  }
  EXPECT_EQ(recorded_writes(expected.size()), expected);
}

TEST(Charging, NodeThatRefusesWritingIsNamedOnceAndSkipped) {
  for (const char* node : kNodes) chmod(node, 0666);
  chmod(kNodes[2], 0444);
  e2e::Options restricted;
  restricted.without_dac_override = true;
  auto result = e2e::run({"--no-power", "-t", "1"}, restricted);
  ASSERT_EQ(result.exit_code, 0);
  EXPECT_EQ(e2e::lines(result.err)[0], "Permission denied for " + std::string(kNodes[2]));
  EXPECT_EQ(result.err.find("Permission denied", 1), std::string::npos);
  auto writes = recorded_writes(6);
  EXPECT_EQ(writes.size(), 6u);
  for (const auto& write : writes) EXPECT_EQ(write.find(kNodes[2]), std::string::npos);
}

}  // namespace
