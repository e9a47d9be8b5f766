// The thermals plugin against a service the test controls, in a frozen headset whose fan files
// the tests set; then the real binary over the headset's own thermal zones.

#include <gtest/gtest.h>

#include <filesystem>

#include "harness.h"
#include "plugins/thermals_plugin.h"
#include "unit/fake_thermal.h"

namespace {

using namespace thermal_test;
using emberline::ThermalsPlugin;

const std::string kFan3 = "/sys/class/hwmon/hwmon3/rpm";
const std::string kFan2 = "/sys/class/hwmon/hwmon2/rpm";
const std::string kFan0 = "/sys/class/hwmon/hwmon0/rpm";

std::string text_of(ThermalsPlugin& plugin) {
  plugin.update_tree_metadata(1, "thermals.");
  return plugin.to_str();
}

std::shared_ptr<FakeThermal> serve(std::vector<Temperature> sensors) {
  auto fake = std::make_shared<FakeThermal>(std::move(sensors));
  registry::register_service(fake);
  return fake;
}

TEST(ThermalsPlugin, TargetSensorsBySectionAndTheWorstNotifiedSeverityOfEach) {
  auto fake = serve(
      {sensor("cpuss-1", TT::CPU, 41.5f, TS::LIGHT), sensor("battery", TT::BATTERY, 30.25f),
       sensor("skin-msm", TT::SKIN, 33, TS::MODERATE), sensor("cpuss-0", TT::CPU, 43, TS::SEVERE),
       sensor("cpu0-usr", TT::CPU, 50, TS::SHUTDOWN), sensor("usb-batt", TT::USB_PORT, 28.5f),
       sensor("gpuss-0", TT::GPU, 39.126f), sensor("cam-front", TT::UNKNOWN, 35, TS::CRITICAL),
       sensor("disp-x", TT::NPU, -4.5f, static_cast<TS>(7))});
  auto plugin = std::make_shared<ThermalsPlugin>();
  ASSERT_TRUE(plugin->init());
  EXPECT_EQ(
      text_of(*plugin),
      "fan_rpm: null\n"
      "    [BATTERY] status: NONE | battery: 30.25C\n"
      "    [CPU] status: SEVERE | cpuss-1: 41.50C | cpuss-0: 43.00C\n"
      "    [GPU] status: NONE | gpuss-0: 39.13C\n"
      "    [UNKNOWN] status: UNKNOWN | usb-batt: 28.50C | cam-front: 35.00C | disp-x: -4.50C");

  // Each notification, then the two statuses it leaves.
  const std::tuple<Temperature, std::string, std::string> steps[] = {
      {sensor("cpuss-0", TT::CPU, 0, TS::NONE), "LIGHT", "NONE"},
      {sensor("cpuss-1", TT::CPU, 0, TS::MODERATE), "MODERATE", "NONE"},
      {sensor("cpuss-9", TT::CPU, 0, TS::CRITICAL), "MODERATE", "NONE"},  // came after init
      {sensor("battery", TT::BATTERY, 0, TS::EMERGENCY), "MODERATE", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, TS::CRITICAL), "CRITICAL", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, TS::SHUTDOWN), "SHUTDOWN", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, static_cast<TS>(9)), "UNKNOWN", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, TS::NONE), "MODERATE", "EMERGENCY"},
      {sensor("cpuss-1", TT::CPU, 0, TS::NONE), "NONE", "EMERGENCY"},
  };
  for (const auto& [notified, cpu, battery] : steps) {
    fake->notify(notified);
    ASSERT_TRUE(plugin->on_output());
    const std::string text = text_of(*plugin);
    EXPECT_NE(text.find("[CPU] status: " + cpu + " |"), std::string::npos) << notified.name;
    EXPECT_NE(text.find("[BATTERY] status: " + battery + " |"), std::string::npos) << text;
  }
  // A reading's own severity moves nothing: only notifications do.
  fake->sensors = {sensor("cpuss-0", TT::CPU, 40, TS::SEVERE)};
  ASSERT_TRUE(plugin->on_output());
  EXPECT_NE(text_of(*plugin).find("[CPU] status: NONE |"), std::string::npos);
}

// What the start needs: a service that answers, and a fan node, the first of three that opens.
TEST(ThermalsPlugin, StartNeedsTheServiceAndAFanNode) {
  const ThermalStatus refused{ThermalStatusCode::FAILURE, "no"};
  const std::string unavailable =
      "ERROR: Thermal HAL unavailable in get_current_temperature\n"
      "Error: Failed to get temperature from thermalHAL\n";
  const std::string no_service = "Unable to get Thermal HAL V2.0\n";
  const std::string no_callback = "registerThermalCallback failed, status: No error\n";
  const std::vector<std::string> fans{kFan3, kFan2, kFan0};
  struct Case {
    std::vector<std::string> fans;
    ThermalStatus FakeThermal::*refusing;  // null: every call answers
    bool service;
    std::string shown;  // the text after a start and an output, then the error lines
  } cases[] = {
      {fans, nullptr, true, "fan_rpm: 3"},
      {{kFan2, kFan0}, nullptr, true, "fan_rpm: 2"},
      {{kFan0}, nullptr, true, "fan_rpm: 0"},
      {{}, nullptr, true, "ERROR: Failed to locate/open fan rpm file\n"},
      {fans, nullptr, false, no_service + no_service + unavailable},
      {fans, &FakeThermal::register_status, true, no_callback + no_callback + unavailable},
      {fans, &FakeThermal::read_status, true, "Error: Failed to get temperature from thermalHAL\n"},
      {fans, &FakeThermal::unregister_status, true,
       "fan_rpm: 3unregisterThermalCallback failed, status: No error\n"},
  };
  for (const auto& c : cases) {
    for (const std::string& path : fans) std::filesystem::remove(path);
    for (const std::string& path : c.fans) {
      std::filesystem::create_directories(std::filesystem::path(path).parent_path());
      e2e::write_file(path, path.substr(path.size() - 5, 1) + "\n");  // hwmonN/rpm holds N
    }
    auto fake = serve({});
    if (c.refusing) (*fake).*c.refusing = refused;
    if (!c.service) registry::kill_service();
    testing::internal::CaptureStderr();
    auto plugin = std::make_shared<ThermalsPlugin>();
    std::string shown = plugin->init() && plugin->on_output() ? text_of(*plugin) : "";
    plugin.reset();
    EXPECT_EQ(shown + testing::internal::GetCapturedStderr(), c.shown);
    EXPECT_EQ(fake->callbacks(), 0u);
  }
}

TEST(ThermalsPlugin, ReadsGoOnAcrossTheServiceDyingAndComingBack) {
  e2e::write_file(kFan3, "1500\n");
  serve({sensor("cpuss-0", TT::CPU, 40), sensor("battery", TT::BATTERY, 30)});
  auto plugin = std::make_shared<ThermalsPlugin>();
  ASSERT_TRUE(plugin->init());

  // A restart: the plugin reconnects from the death notice and registers with the new process.
  auto second = std::make_shared<FakeThermal>();
  testing::internal::CaptureStderr();
  registry::replace_service(second);
  registry::await_notifications();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ThermalHAL died\n");
  second->notify(sensor("cpuss-0", TT::CPU, 0, TS::MODERATE));
  ASSERT_TRUE(plugin->on_output());

  // Gone for good for a while: a read fails, and the run would end.
  testing::internal::CaptureStderr();
  registry::kill_service();
  registry::await_notifications();
  EXPECT_FALSE(plugin->on_output());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ThermalHAL died\nUnable to get Thermal HAL V2.0\n"
            "Unable to get Thermal HAL V2.0\n"
            "ERROR: Thermal HAL unavailable in get_current_temperature\n"
            "Error: Failed to get temperature from thermalHAL\n");

  // Back: the next read connects and stores its temperatures, though the fan's node fails it,
  // whose last reading stays. A sensor missing from the reading keeps its last value, and one
  // new since the start takes no other's place. The new service knows the plugin's callback.
  auto third = serve({sensor("cpuss-0", TT::CPU, 60), sensor("cpuss-9", TT::CPU, 99)});
  e2e::write_file(kFan3, "fast\n");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(plugin->on_output());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: Failed to update fan rpm value\n");
  third->notify(sensor("battery", TT::BATTERY, 0, TS::LIGHT));
  plugin->on_output();
  EXPECT_EQ(text_of(*plugin),
            "fan_rpm: 1500\n"
            "    [BATTERY] status: LIGHT | battery: 30.00C\n"
            "    [CPU] status: MODERATE | cpuss-0: 60.00C");
}

// The real binary over the headset's thermal class and fan, as the frozen headset leaves them.
TEST(ThermalsEndToEnd, ReportsTheHeadsetsZones) {
  auto result = e2e::run({"-c", "--no-power", "--thermals", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  const std::string head = "[Thermals] fan_rpm: 1500\n    [BATTERY] status: NONE | battery: 29.00C";
  EXPECT_NE(result.out.find(head + "\n    [CPU] status: NONE | cpuss-0: 38.00C |"),
            std::string::npos);
}

}  // namespace
