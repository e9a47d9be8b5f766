// The thermals plugin against a service the test controls, in a frozen headset whose fan files
// the tests set; then the real binary over the headset's own thermal zones.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "harness.h"
#include "plugins/thermals_plugin.h"
#include "unit/fake_thermal.h"

namespace {

using namespace thermal_test;
using emberline::ThermalsPlugin;
using TT = TemperatureType;
using TS = ThrottlingSeverity;

const std::string kFan3 = "/sys/class/hwmon/hwmon3/rpm";
const std::string kFan2 = "/sys/class/hwmon/hwmon2/rpm";
const std::string kFan0 = "/sys/class/hwmon/hwmon0/rpm";

std::string text_of(ThermalsPlugin& plugin) {
  plugin.update_tree_metadata(1, "thermals.");
  return plugin.to_str();
}

std::string status_of(ThermalsPlugin& plugin, const std::string& type) {
  std::smatch m;
  std::string text = text_of(plugin);
  return std::regex_search(text, m, std::regex("\\[" + type + "\\] status: (\\w+)")) ? m.str(1)
                                                                                     : "absent";
}

std::shared_ptr<FakeThermal> serve(std::vector<Temperature> sensors) {
  auto fake = std::make_shared<FakeThermal>(std::move(sensors));
  registry::register_service(fake);
  return fake;
}

TEST(ThermalsPlugin, TargetSensorsStandInSectionsByTypeName) {
  serve({sensor("cpuss-1", TT::CPU, 41.5f, TS::LIGHT), sensor("battery", TT::BATTERY, 30.25f),
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
}

TEST(ThermalsPlugin, StatusIsTheWorstNotifiedSeverityOfItsType) {
  auto fake = serve({sensor("cpuss-0", TT::CPU, 40), sensor("cpuss-1", TT::CPU, 41),
                     sensor("battery", TT::BATTERY, 30)});
  auto plugin = std::make_shared<ThermalsPlugin>();
  ASSERT_TRUE(plugin->init());
  struct Step {
    Temperature notified;
    std::string cpu, battery;
  } steps[] = {
      {sensor("cpuss-0", TT::CPU, 0, TS::LIGHT), "LIGHT", "NONE"},
      {sensor("cpuss-1", TT::CPU, 0, TS::SEVERE), "SEVERE", "NONE"},
      {sensor("cpuss-1", TT::CPU, 0, TS::NONE), "LIGHT", "NONE"},
      {sensor("skin-msm", TT::SKIN, 0, TS::SHUTDOWN), "LIGHT", "NONE"},
      {sensor("cpuss-9", TT::CPU, 0, TS::CRITICAL), "LIGHT", "NONE"},  // came after init
      {sensor("battery", TT::BATTERY, 0, TS::EMERGENCY), "LIGHT", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, TS::MODERATE), "MODERATE", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, TS::CRITICAL), "CRITICAL", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, TS::SHUTDOWN), "SHUTDOWN", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, static_cast<TS>(9)), "UNKNOWN", "EMERGENCY"},
      {sensor("cpuss-0", TT::CPU, 0, TS::NONE), "NONE", "EMERGENCY"},
  };
  for (const auto& s : steps) {
    fake->notify(s.notified);
    ASSERT_TRUE(plugin->on_output());
    EXPECT_EQ(status_of(*plugin, "CPU"), s.cpu) << s.notified.name;
    EXPECT_EQ(status_of(*plugin, "BATTERY"), s.battery) << s.notified.name;
  }
  // A reading's own severity moves nothing: only notifications do.
  fake->set_sensors({sensor("cpuss-0", TT::CPU, 40, TS::SEVERE)});
  ASSERT_TRUE(plugin->on_output());
  EXPECT_EQ(status_of(*plugin, "CPU"), "NONE");
}

TEST(ThermalsPlugin, OutputStoresEachSensorsReadingAndTheFan) {
  e2e::write_file(kFan3, "2400\n");
  auto fake = serve({sensor("cpuss-0", TT::CPU, 40), sensor("battery", TT::BATTERY, 30)});
  auto plugin = std::make_shared<ThermalsPlugin>();
  ASSERT_TRUE(plugin->init());
  // A target sensor that appeared since init takes nobody's place.
  fake->set_sensors({sensor("battery", TT::BATTERY, 31.5f), sensor("cpuss-0", TT::CPU, 47.25f),
                     sensor("cpuss-9", TT::CPU, 99)});
  ASSERT_TRUE(plugin->on_output());
  const std::string after_first =
      "fan_rpm: 2400\n"
      "    [BATTERY] status: NONE | battery: 31.50C\n"
      "    [CPU] status: NONE | cpuss-0: 47.25C";
  EXPECT_EQ(text_of(*plugin), after_first);

  // A sensor missing from a reading keeps its last temperature.
  fake->set_sensors({sensor("cpuss-0", TT::CPU, 48)});
  e2e::write_file(kFan3, "fast\n");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(plugin->on_output());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: Failed to update fan rpm value\n");
  EXPECT_EQ(text_of(*plugin),
            "fan_rpm: 2400\n"
            "    [BATTERY] status: NONE | battery: 31.50C\n"
            "    [CPU] status: NONE | cpuss-0: 48.00C");
}

TEST(ThermalsPlugin, FanIsTheFirstOfThreeFilesThatOpens) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{kFan3, kFan2, kFan0}, "fan_rpm: 3"},
      {{kFan2, kFan0}, "fan_rpm: 2"},
      {{kFan0}, "fan_rpm: 0"},
      {{}, "ERROR: Failed to locate/open fan rpm file\n"},
  };
  for (const auto& [present, shown] : cases) {
    for (const std::string& path : {kFan3, kFan2, kFan0}) std::filesystem::remove(path);
    for (const std::string& path : present) {
      std::filesystem::create_directories(std::filesystem::path(path).parent_path());
      e2e::write_file(path, path.substr(path.size() - 5, 1) + "\n");  // hwmonN/rpm holds N
    }
    serve({});
    auto plugin = std::make_shared<ThermalsPlugin>();
    testing::internal::CaptureStderr();
    bool ok = plugin->init() && plugin->on_output();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(ok ? text_of(*plugin) : err, shown);
  }
}

TEST(ThermalsPlugin, ServiceRefusalsAreTold) {
  const ThermalStatus refused{ThermalStatusCode::FAILURE, "no"};
  const std::string unavailable =
      "ERROR: Thermal HAL unavailable in get_current_temperature\n"
      "Error: Failed to get temperature from thermalHAL\n";
  const std::string no_callback = "registerThermalCallback failed, status: No error\n";
  struct Case {
    ThermalStatus FakeThermal::*refusing;
    bool init;
    std::string err;
  } cases[] = {
      {&FakeThermal::register_status, false, no_callback + no_callback + unavailable},
      {&FakeThermal::read_status, false, "Error: Failed to get temperature from thermalHAL\n"},
      {&FakeThermal::unregister_status, true,
       "unregisterThermalCallback failed, status: No error\n"},
  };
  for (const auto& c : cases) {
    auto fake = serve({sensor("cpuss-0", TT::CPU, 40)});
    (*fake).*c.refusing = refused;
    testing::internal::CaptureStderr();
    auto plugin = std::make_shared<ThermalsPlugin>();
    EXPECT_EQ(plugin->init(), c.init);
    plugin.reset();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(fake->callbacks(), 0u);
  }
}

TEST(ThermalsPlugin, SurvivesTheServiceDyingAndComingBack) {
  e2e::write_file(kFan3, "1500\n");
  auto first = serve({sensor("cpuss-0", TT::CPU, 40)});
  auto plugin = std::make_shared<ThermalsPlugin>();
  ASSERT_TRUE(plugin->init());
  ASSERT_EQ(first->callbacks(), 1u);

  // A restart: the plugin reconnects from the death notice and registers with the new process.
  auto second = std::make_shared<FakeThermal>(std::vector{sensor("cpuss-0", TT::CPU, 50)});
  testing::internal::CaptureStderr();
  registry::replace_service(second);
  registry::await_notifications();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ThermalHAL died\n");
  EXPECT_EQ(second->callbacks(), 1u);
  second->notify(sensor("cpuss-0", TT::CPU, 0, TS::MODERATE));
  ASSERT_TRUE(plugin->on_output());
  EXPECT_EQ(text_of(*plugin), "fan_rpm: 1500\n    [CPU] status: MODERATE | cpuss-0: 50.00C");

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

  // Back: the next read connects, and the new service knows the plugin's callback.
  auto third = serve({sensor("cpuss-0", TT::CPU, 60)});
  testing::internal::CaptureStderr();
  ASSERT_TRUE(plugin->on_output());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(third->callbacks(), 1u);
  third->notify(sensor("cpuss-0", TT::CPU, 0, TS::LIGHT));
  ASSERT_TRUE(plugin->on_output());
  EXPECT_EQ(text_of(*plugin), "fan_rpm: 1500\n    [CPU] status: LIGHT | cpuss-0: 60.00C");

  plugin.reset();
  EXPECT_EQ(third->callbacks(), 0u);
}

// The real binary over the headset's thermal class: zone order by number, severities from trip
// points, the fan from its hwmon node.
TEST(ThermalsEndToEnd, ReportsTheHeadsetsZones) {
  const std::string zones = "/sys/class/thermal/thermal_zone";
  const std::pair<int, const char*> temps[] = {
      {0, "52300"}, {1, "60000"}, {2, "41000"},  {3, "44500"},  {5, "47000"},
      {6, "48000"}, {7, "38500"}, {10, "36000"}, {11, "35000"}, {12, "30000"}};
  for (const auto& [zone, temp] : temps) {
    e2e::write_file(zones + std::to_string(zone) + "/temp", std::string(temp) + "\n");
  }
  e2e::write_file(zones + "12/type", "cpuss-9\n");
  e2e::write_file(kFan3, "3210\n");
  auto result = e2e::run({"--no-power", "--thermals", "-t", "1"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  // The report's own time stamps are the engine's business; a loaded machine moves them.
  EXPECT_EQ(result.out.substr(result.out.find('\n') + 1),
            "[Thermals] fan_rpm: 3210\n"
            "    [BATTERY] status: LIGHT | battery: 38.50C\n"
            "    [CPU] status: MODERATE | cpuss-0: 52.30C | cpuss-1: 60.00C | cpuss-2: 41.00C | "
            "cpuss-3: 44.50C | cpuss-9: 30.00C\n"
            "    [GPU] status: NONE | gpuss-0: 47.00C | gpuss-1: 48.00C\n"
            "    [UNKNOWN] status: NONE | disp-therm: 36.00C | camera-therm: 35.00C\n"
            "------\n");
}

TEST(ThermalsEndToEnd, NoThermalServiceStopsTheStart) {
  std::filesystem::remove_all("/sys/class/thermal");
  auto result = e2e::run({"--no-power", "--thermals", "-t", "1"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "Unable to get Thermal HAL V2.0\nUnable to get Thermal HAL V2.0\n"
            "ERROR: Thermal HAL unavailable in get_current_temperature\n"
            "Error: Failed to get temperature from thermalHAL\n"
            "ERROR: Failed to initialize plugin 'thermals'\n");
}

}  // namespace
