// The rail monitors of a Brantley engineering sample: the plugin inside the headset, and the real
// binary on production hardware.

#include <gtest/gtest.h>

#include "harness.h"
#include "plugins/power_rails_plugin.h"

namespace {

const std::string kDevice3 = "/sys/bus/iio/devices/iio:device3/";
const std::string kDevice4 = "/sys/bus/iio/devices/iio:device4/";

TEST(BrantleyRails, RailsByNameInWatts) {
  e2e::write_file(kDevice3 + "available_rails",
                  "0:VPH_S7S8S9A\n1:VPH_S10A\nbroken\n2:VPH_S1S2S3A:extra\n3:VPH_S3C\n");
  e2e::write_file(kDevice3 + "average_value",
                  "0,3800000,500000\n1,1000000,250000\n3,2000000\n9,1000000,1000000\n"
                  "3,4000000,1000000,7\n");
  // A rail missing from the name table still reports, under its own name.
  e2e::write_file(kDevice4 + "available_rails", "0:VPH_S1S2C\n1:VPH_S7C\n2:S1H\n3:L3A\n4:LDO9\n");
  e2e::write_file(kDevice4 + "average_value",
                  "0,1000000,1000000\n1,2000000,500000\n2,500000,500000\n3,3000000,100000\n"
                  "4,1000000,123000\n");
  emberline::PowerRailsPlugin plugin;
  testing::internal::CaptureStderr();
  ASSERT_TRUE(plugin.init());
  ASSERT_TRUE(plugin.on_output());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(plugin.to_str(),
            "gold: 1.900W | silver: 0.250W | soc_ram: null | gpu: 1.000W | ram_contr: 1.000W | "
            "dimm1: 0.250W | dimm2: 0.300W | LDO9: 0.123W");
}

TEST(BrantleyRails, ProductionHardwareLeavesTheSectionOutAndRunsOn) {
  std::remove((kDevice4 + "available_rails").c_str());
  auto result = e2e::run({"--no-power", "--all", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.err, "ERROR: Failed to find rail_file '" + kDevice4 +
                            "average_value'.\nMP (Mass Production) devices are un-supported. Is "
                            "this 'Engineering Sample' hardware?\nDisabling charging...\n"
                            "Starting 1 second trace. \nPress CTRL-C to stop...\n\n\n"
                            "Enabling charging...\n");
  EXPECT_EQ(e2e::section(result.out, "[Rails]"), "");
  EXPECT_NE(e2e::section(result.out, "[Example] "), "");
}

// Every output reads both monitors afresh: the figures follow the nodes from report to report,
// and a rail the node leaves out keeps its last figure.
TEST(BrantleyRails, EveryOutputFollowsTheAverages) {
  e2e::write_file(kDevice3 + "available_rails", "0:VPH_S7S8S9A\n1:VPH_S10A\n");
  e2e::write_file(kDevice4 + "available_rails", "0:VPH_S1S2C\n");
  emberline::PowerRailsPlugin plugin;
  ASSERT_TRUE(plugin.init());
  struct Step {
    const char* device3;
    const char* device4;
    const char* shown;
  } steps[] = {
      {"0,3800000,500000\n1,1000000,250000\n", "0,1000000,1000000\n",
       "gold: 1.900W | silver: 0.250W | gpu: 1.000W"},
      {"0,4000000,1000000\n1,3000000,500000\n", "0,2000000,250000\n",
       "gold: 4.000W | silver: 1.500W | gpu: 0.500W"},
      {"1,500000,500000\n", "0,3700000,1200000\n", "gold: 4.000W | silver: 0.250W | gpu: 4.440W"},
      {"0,100000,100000\n1,0,5000000\n", "", "gold: 0.010W | silver: 0.000W | gpu: 4.440W"},
  };
  for (const Step& step : steps) {
    e2e::write_file(kDevice3 + "average_value", step.device3);
    e2e::write_file(kDevice4 + "average_value", step.device4);
    ASSERT_TRUE(plugin.on_output());
    EXPECT_EQ(plugin.to_str(), step.shown);
  }
}

}  // namespace
