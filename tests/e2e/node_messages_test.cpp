// What the instrumented-hardware plugins of a Quillon headset say about a node they cannot use.

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "harness.h"
#include "plugins/quillon_dram_bandwidth_plugin.h"
#include "plugins/quillon_power_rails_plugin.h"

namespace {

namespace fs = std::filesystem;

// Starts the plugin and, once it has started, takes one sample; gives what it wrote on the
// standard error stream, its destruction included.
template <typename P, typename... Args>
std::string init_and_sample(Args... args) {
  testing::internal::CaptureStderr();
  {
    P plugin(args...);
    if (plugin.init()) plugin.on_sample();
  }
  return testing::internal::GetCapturedStderr();
}

TEST(InstrumentedHardware, ANodeThatCannotBeUsedIsNamedInALineOfItsOwn) {
  const std::string bw = "/sys/devices/system/cpu/bw_prof/", cap = "/sys/class/powercap";
  const std::function<std::string()> dram = [] {
    return init_and_sample<emberline::QuillonDRAMBandwidthPlugin>(50u);
  };
  const std::function<std::string()> rails = [] {
    return init_and_sample<emberline::QuillonPowerRailsPlugin>();
  };
  struct Case {
    std::string node;  // moved away for the case
    bool directory;    // and a directory put in its place, which reads as nothing
    const std::function<std::string()>& run;
    std::string err;
  } cases[] = {
      {bw + "bwmon1/client", false, dram, "Failed to read file at '" + bw + "bwmon1/client'\n"},
      {bw + "sample_ms", true, dram,
       "Failed to read value from '" + bw + "sample_ms'\nFailed to write value 50 to '" + bw +
           "sample_ms'\n"},
      {bw + "bwmon2/last_sample", true, dram,
       "Failed to read sample from '" + bw + "bwmon2/last_sample'\n"},
      {cap, false, rails,
       "Error: /sys/class/powercap directory is not accessible or doesn't exist.\n"},
      {cap + "/epm:3/name", false, rails,
       "ERROR: Failed to find name file for rail directory 'epm:3'.\n"},
      {cap + "/epm:5/power_uw", false, rails,
       "ERROR: Failed to find power file for rail directory 'epm:5'.\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.node);
    fs::rename(c.node, c.node + ".away");
    if (c.directory) fs::create_directory(c.node);
    EXPECT_EQ(c.run(), c.err);
    fs::remove(c.node);
    fs::rename(c.node + ".away", c.node);
  }
}

}  // namespace
