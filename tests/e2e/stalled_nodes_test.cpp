// Every plugin over nodes that never answer: a FIFO in a node's place, once with a writer that
// never writes (reads would wait) and once with none (opens would wait). Each step must come back,
// whatever it reports, so that the loop goes on and a stop can end the run.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>

#include "harness.h"
#include "plugins/charge_plugin.h"
#include "plugins/cpu_credits_plugin.h"
#include "plugins/file_plugin.h"
#include "plugins/power_plugin.h"
#include "plugins/power_rails_plugin.h"
#include "plugins/quillon_dram_bandwidth_plugin.h"
#include "plugins/quillon_power_rails_plugin.h"
#include "plugins/stats_plugin.h"
#include "plugins/thermals_plugin.h"

namespace {

using namespace emberline;

// FIFOs in the nodes' places while it lives; the nodes come back after. They are changed in the
// headset's state directory, since the process tree stands read-only at /proc.
class Stalled {
 public:
  Stalled(const std::vector<std::string>& device_nodes, bool with_writer) {
    for (const auto& device_node : device_nodes) {
      const std::string& node =
          nodes.emplace_back(std::getenv("EMBERLINE_SIM_STATE") + device_node);
      std::filesystem::rename(node, node + ".kept");
      EXPECT_EQ(mkfifo(node.c_str(), 0644), 0) << node;
      if (with_writer) writers.push_back(::open(node.c_str(), O_RDWR));
    }
  }
  ~Stalled() {
    for (int fd : writers) ::close(fd);
    for (const auto& node : nodes) std::filesystem::rename(node + ".kept", node);
  }

 private:
  std::vector<std::string> nodes;
  std::vector<int> writers;
};

// A node of one of the headset's threads, as the tool sees its path.
std::string first_thread_node(const char* name) {
  const std::string state = std::getenv("EMBERLINE_SIM_STATE");
  for (const auto& process : std::filesystem::directory_iterator(state + "/proc")) {
    for (const auto& thread : std::filesystem::directory_iterator(process.path() / "task")) {
      if (std::filesystem::exists(thread.path() / name))
        return (thread.path() / name).string().substr(state.size());
    }
  }
  return "";
}

// Makes the plugin anew for each case.
template <typename P, typename... Args>
std::function<std::shared_ptr<Plugin>()> make(Args... args) {
  return [=] { return std::make_shared<P>(args...); };
}

TEST(StalledNodes, EveryPluginStepComesBack) {
  const std::string ps = "/sys/class/power_supply/", cpufreq = "/sys/devices/system/cpu/cpufreq/",
                    bw = "/sys/devices/system/cpu/bw_prof/bwmon0/";
  // Whether the headset has the plugin's hardware, the plugin, and the nodes that stall.
  const struct {
    bool on_device;
    std::function<std::shared_ptr<Plugin>()> make;
    std::vector<std::string> nodes;
  } cases[] = {
      // clang-format off
      {true, make<PowerWindowPlugin>(PowerPath::BATTERY, 4, true),
       {ps + "battery/current_now", ps + "battery/voltage_now"}},
      {true, make<StatsPlugin>(false),
       {cpufreq + "policy0/cpuinfo_cur_freq", "/sys/class/kgsl/kgsl-3d0/gpubusy_accum",
        "/sys/class/kgsl/kgsl-3d0/clock_mhz", "/sys/class/backlight/panel0-backlight/bl_power",
        ps + "battery/charge_counter"}},
      {true, make<StatsPlugin>(true),
       {cpufreq + "policy4/affected_cpus", cpufreq + "policy0/stats/time_in_state"}},
      {true, make<CpuCreditsPlugin>(),
       {first_thread_node("time_in_state"), first_thread_node("comm")}},
      {true, make<ThermalsPlugin>(),
       {"/sys/class/hwmon/hwmon3/rpm", "/sys/class/thermal/thermal_zone0/temp"}},
      {true, make<FilePlugin>(std::vector<std::string>{"/sys/x"}), {"/sys/x"}},
      {is_chipset2_device, make<ChargePlugin>(),
       {ps + "usb/voltage_now", ps + "usb/typec_power_role"}},
      {is_chipset2_device, make<QuillonPowerRailsPlugin>(),
       {"/sys/class/powercap/epm:0/name", "/sys/class/powercap/epm:1/power_uw"}},
      {is_chipset2_device, make<QuillonDRAMBandwidthPlugin>(20),
       {bw + "last_sample", bw + "client"}},
      {is_brantley, make<PowerRailsPlugin>(),
       {"/sys/bus/iio/devices/iio:device3/available_rails",
        "/sys/bus/iio/devices/iio:device4/average_value"}},
      // clang-format on
  };
  e2e::write_file("/sys/x", "1\n");
  // A step that waits for good ends the test here instead of at ctest's limit.
  alarm(60);
  for (const auto& c : cases) {
    if (!c.on_device) continue;
    for (bool with_writer : {true, false}) {
      SCOPED_TRACE(c.nodes[0] + (with_writer ? ", silent writer" : ", no writer"));
      Stalled stalled(c.nodes, with_writer);
      testing::internal::CaptureStderr();
      auto plugin = c.make();
      if (plugin->init()) {
        for (int tick = 0; tick < 2; ++tick) {
          plugin->on_sample();
          plugin->on_output();
        }
      }
      plugin.reset();
      testing::internal::GetCapturedStderr();
    }
  }
  alarm(0);
}

}  // namespace
