#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "profile.h"
#include "sim_process.h"
#include "state_dir.h"

namespace emberline::sim {
namespace {

// Profile name, and the device it must tell the tool it is.
class LayoutTest : public testing::TestWithParam<std::pair<std::string, std::string>> {
 protected:
  const Profile& profile = *find_profile(GetParam().first);
  TemporaryDir dir;
  DeviceState initial = DeviceModel(profile.model, 1).state();

  void SetUp() override { lay_out(profile, dir.path(), initial); }
  std::string read(const std::string& path) { return sim_test::read_file(dir.path() + path); }
};

TEST_P(LayoutTest, ShowsIdentityPowerSupplyAndEmptySuspendNodes) {
  std::string props = read("/system/build.prop");
  EXPECT_EQ(props.substr(props.rfind("ro.product.device=")),
            "ro.product.device=" + GetParam().second + "\n");

  const std::string ps = "/sys/class/power_supply/";
  for (auto [path, value] : {std::pair{ps + "battery/current_now", initial.battery_a},
                             {ps + "battery/voltage_now", initial.battery_v},
                             {ps + "usb/current_now", initial.usb_a},
                             {ps + "usb/input_current_now", initial.usb_a},
                             {ps + "usb/voltage_now", initial.usb_v}}) {
    std::string text = read(path);
    EXPECT_EQ(text, std::to_string(std::stol(text)) + "\n") << path << ": a bare signed decimal";
    EXPECT_EQ(std::stol(text), std::lround(value * 1e6)) << path;
  }
  EXPECT_LT(std::stol(read(ps + "battery/current_now")), 0) << "a plugged-in headset charges";

  for (const std::string& node :
       {std::string("/sys/class/qcom-battery/input_suspend"), ps + "battery/input_suspend",
        ps + "usb/input_suspend", ps + "wireless/input_suspend"}) {
    auto n = std::find_if(profile.nodes.begin(), profile.nodes.end(),
                          [&node](const Node& n) { return n.path == node; });
    ASSERT_NE(n, profile.nodes.end()) << node;
    EXPECT_NE(n->recording, Recording::none) << node;
    EXPECT_EQ(read(node), "") << node;
  }
}

TEST_P(LayoutTest, EveryNodeIsUnderADirectoryTheSandboxShows) {
  for (const Node& n : profile.nodes) {
    std::string top = n.path.substr(1, n.path.find('/', 1) - 1);
    EXPECT_TRUE(std::any_of(kDeviceRoots.begin(), kDeviceRoots.end(), [&top](const DeviceRoot& r) {
      return r.name == top;
    })) << n.path;
  }
}

INSTANTIATE_TEST_SUITE_P(Profiles, LayoutTest,
                         testing::Values(std::pair{"generic", "generic"},
                                         std::pair{"fennick", "fennick"},
                                         std::pair{"brantley", "brantley"}),
                         [](const auto& info) { return info.param.first; });

TEST(LiveNodesTest, AHeldDescriptorSeesEachNewValueInTheSameFile) {
  const Profile& profile = *find_profile("generic");
  TemporaryDir dir;
  DeviceState s;
  s.battery_a = -1.5;
  lay_out(profile, dir.path(), s);
  std::string path = dir.path() + "/sys/class/power_supply/battery/current_now";
  int held = open(path.c_str(), O_RDONLY);
  struct stat before, after;
  ASSERT_EQ(fstat(held, &before), 0);

  LiveNodes live(profile, dir.path());
  for (double amps : {0.25, -1.0, 0.0}) {
    s.battery_a = amps;
    live.render(s);
    char buf[64] = {};
    ASSERT_GT(pread(held, buf, sizeof buf - 1, 0), 0);
    EXPECT_EQ(std::string(buf), micro_units(amps)) << "no stale tail of a longer value";
  }
  ASSERT_EQ(stat(path.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  close(held);
}

}  // namespace
}  // namespace emberline::sim
