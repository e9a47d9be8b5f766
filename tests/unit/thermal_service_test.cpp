// The thermal service stand-in: what it makes of the thermal class's files, and its poll thread.
// The registry's death notices are exercised through the plugin's own tests.

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <thread>

#include "fake_thermal.h"
#include "platform/thermal/default_thermal.h"

namespace {

using namespace thermal_test;
using namespace android::hardware::thermal::V2_0::implementation;
using TT = TemperatureType;
using TS = ThrottlingSeverity;
namespace fs = std::filesystem;

// The zone tests below cover the common cases; these are the edges.
TEST(ThermalService, ParsingEdges) {
  EXPECT_EQ(sensor_type("Cpu-0"), TT::UNKNOWN);
  EXPECT_EQ(sensor_type("batt-id"), TT::BATTERY);
  for (const char* text : {"45.2\n", "x1", "\n", ""}) EXPECT_FALSE(parse_integer(text)) << text;
  EXPECT_EQ(parse_integer("37000 \t\r\n"), 37000);
  EXPECT_FALSE(zone_number("thermal_zone3a"));
  EXPECT_FALSE(zone_number("thermal_zone"));
  const std::vector<long> eight{1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(severity_at(5, eight), TS::EMERGENCY);
  EXPECT_EQ(severity_at(9, eight), TS::SHUTDOWN);
  EXPECT_EQ(severity_at(65000, {70000, 50000, 60000}), TS::MODERATE);  // in any order
}

class Zones : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(root); }
  void TearDown() override { fs::remove_all(root); }

  void zone(int n, const std::string& type, const std::string& temp, std::vector<long> trips = {}) {
    fs::path dir = root / ("thermal_zone" + std::to_string(n));
    fs::create_directories(dir);
    write(dir / "type", type);
    write(dir / "temp", temp);
    for (std::size_t k = 0; k < trips.size(); ++k) {
      write(dir / ("trip_point_" + std::to_string(k) + "_temp"), std::to_string(trips[k]));
    }
  }
  // Whole files at once, so that the poll thread never reads half a number.
  void write(const fs::path& path, const std::string& text) {
    std::ofstream(path.string() + ".next") << text << "\n";
    fs::rename(path.string() + ".next", path);
  }
  static std::string read(IThermal& service, bool filter = false, TT type = TT::CPU) {
    std::string text;
    service.getCurrentTemperatures(filter, type, [&](const ThermalStatus& s, const auto& all) {
      text = s.code == ThermalStatusCode::SUCCESS ? "" : "failed";
      for (const auto& t : all) {
        text += t.name + "/" + std::to_string(int(t.type)) + "/" + std::to_string(t.value) + "/" +
                std::to_string(int(t.throttlingStatus)) + " ";
      }
    });
    return text;
  }

  fs::path root = fs::temp_directory_path() / ("thermal-" + std::to_string(::getpid()));
};

TEST_F(Zones, SensorsInZoneOrderReadAfreshAtEachCall) {
  zone(10, "battery", "31500", {30000, 40000});
  zone(2, "gpuss-0", "-2500");
  zone(0, "cpuss-0", "61000", {50000, 60000, 70000});
  zone(3, "skin-msm", "garbage");  // unreadable now: left out
  DefaultThermal service(root.string());
  EXPECT_EQ(read(service), "cpuss-0/0/61.000000/2 gpuss-0/1/-2.500000/0 battery/2/31.500000/1 ");
  EXPECT_EQ(read(service, true, TT::BATTERY), "battery/2/31.500000/1 ");
  write(root / "thermal_zone0" / "temp", "71000");
  write(root / "thermal_zone3" / "temp", "40000");
  EXPECT_EQ(read(service),
            "cpuss-0/0/71.000000/3 gpuss-0/1/-2.500000/0 skin-msm/3/40.000000/0 "
            "battery/2/31.500000/1 ");
  fs::remove_all(root);
  EXPECT_EQ(read(service), "failed");
}

class Recorder : public IThermalChangedCallback {
 public:
  Return<void> notifyThrottling(const Temperature& t) override {
    std::lock_guard lock(mutex);
    seen.push_back(t.name + ":" + std::to_string(static_cast<int>(t.throttlingStatus)));
    changed.notify_all();
    return Void();
  }
  std::vector<std::string> wait_for(std::size_t count) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(10), [&] { return seen.size() >= count; });
    return seen;
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> seen;
};

TEST_F(Zones, PollThreadTellsEachSeverityChangeOnce) {
  zone(0, "cpuss-0", "40000", {50000, 60000});
  zone(1, "battery", "30000", {35000});
  DefaultThermal service(root.string(), std::chrono::milliseconds(5));
  auto all = std::make_shared<Recorder>(), batteries = std::make_shared<Recorder>();
  auto ok = [](const ThermalStatus& s) { EXPECT_EQ(s.code, ThermalStatusCode::SUCCESS); };
  service.registerThermalChangedCallback(all, false, TT::CPU, ok);
  service.registerThermalChangedCallback(batteries, true, TT::BATTERY, ok);
  // Each change waits for the notice of the one before, so that no poll sees two at once.
  const std::pair<int, const char*> changes[] = {{0, "61000"}, {0, "59000"}, {1, "36000"}};
  for (std::size_t i = 0; i < std::size(changes); ++i) {
    write(root / ("thermal_zone" + std::to_string(changes[i].first)) / "temp", changes[i].second);
    all->wait_for(i + 1);
  }
  write(root / "thermal_zone0" / "temp", "30000");
  EXPECT_EQ(all->wait_for(4),
            (std::vector<std::string>{"cpuss-0:2", "cpuss-0:1", "battery:1", "cpuss-0:0"}));
  EXPECT_EQ(batteries->wait_for(1), std::vector<std::string>{"battery:1"});
}

}  // namespace
