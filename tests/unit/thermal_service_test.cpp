// The thermal service stand-in: what it makes of the thermal class's files, its poll thread, and
// the registry's handles and death notices.

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

TEST(ThermalService, ParsesZoneNamesAndValues) {
  const std::pair<const char*, TT> types[] = {
      {"cpuss-0", TT::CPU},      {"cpu0-usr", TT::CPU},     {"gpuss-1", TT::GPU},
      {"battery", TT::BATTERY},  {"batt-id", TT::BATTERY},  {"skin-msm", TT::SKIN},
      {"xo-therm", TT::UNKNOWN}, {"usb-batt", TT::UNKNOWN}, {"Cpu", TT::UNKNOWN},
      {"", TT::UNKNOWN},
  };
  for (const auto& [name, type] : types) EXPECT_EQ(sensor_type(name), type) << name;

  const std::pair<const char*, std::optional<long>> integers[] = {
      {"45200\n", 45200},       {"-1500\n", -1500},     {"0", 0},
      {"37000 \t\r\n", 37000},  {"", std::nullopt},     {"\n", std::nullopt},
      {"45.2\n", std::nullopt}, {"x1\n", std::nullopt},
  };
  for (const auto& [text, value] : integers) EXPECT_EQ(parse_integer(text), value) << text;

  const std::pair<const char*, std::optional<unsigned>> zones[] = {
      {"thermal_zone0", 0u},
      {"thermal_zone17", 17u},
      {"thermal_zone", std::nullopt},
      {"thermal_zone3a", std::nullopt},
      {"cooling_device0", std::nullopt},
      {".", std::nullopt},
  };
  for (const auto& [entry, n] : zones) EXPECT_EQ(zone_number(entry), n) << entry;
}

TEST(ThermalService, SeverityCountsTheTripPointsReached) {
  const std::vector<long> trips{50000, 60000, 70000};
  const std::vector<long> eight{1, 2, 3, 4, 5, 6, 7, 8};
  const struct {
    long temp;
    const std::vector<long>& trips;
    TS severity;
  } cases[] = {
      {49999, trips, TS::NONE},   {50000, trips, TS::LIGHT},  {65000, trips, TS::MODERATE},
      {70000, trips, TS::SEVERE}, {99000, trips, TS::SEVERE}, {-5, trips, TS::NONE},
      {9, eight, TS::SHUTDOWN},   {5, eight, TS::EMERGENCY},
  };
  for (const auto& c : cases) EXPECT_EQ(severity_at(c.temp, c.trips), c.severity) << c.temp;
  // Trip points are counted, not taken in order: a zone may list them in any order.
  EXPECT_EQ(severity_at(65000, {70000, 50000, 60000}), TS::MODERATE);
}

class Zones : public ::testing::Test {
 protected:
  void SetUp() override {
    root = std::filesystem::temp_directory_path() /
           ("thermal-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(root);
  }
  void TearDown() override { std::filesystem::remove_all(root); }

  void zone(int n, const std::string& type, const std::string& temp, std::vector<long> trips = {}) {
    auto dir = root / ("thermal_zone" + std::to_string(n));
    std::filesystem::create_directories(dir);
    write(dir / "type", type + "\n");
    write(dir / "temp", temp + "\n");
    for (std::size_t k = 0; k < trips.size(); ++k) {
      write(dir / ("trip_point_" + std::to_string(k) + "_temp"), std::to_string(trips[k]) + "\n");
    }
  }
  // Whole files at once, so that the poll thread never reads half a number.
  void write(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::path next = path.string() + ".next";
    std::ofstream(next, std::ios::trunc) << text;
    std::filesystem::rename(next, path);
  }

  static std::vector<Temperature> read(IThermal& service, bool filter = false, TT type = TT::CPU) {
    std::vector<Temperature> out;
    service.getCurrentTemperatures(filter, type, [&](const ThermalStatus& s, const auto& all) {
      EXPECT_EQ(s.code, ThermalStatusCode::SUCCESS);
      out = all;
    });
    return out;
  }

  std::filesystem::path root;
};

std::string describe(const std::vector<Temperature>& all) {
  std::string text;
  for (const auto& t : all) {
    text += t.name + "/" + std::to_string(static_cast<int>(t.type)) + "/" +
            std::to_string(t.value) + "/" + std::to_string(static_cast<int>(t.throttlingStatus)) +
            " ";
  }
  return text;
}

TEST_F(Zones, SensorsInZoneOrderReadAfreshAtEachCall) {
  zone(10, "battery", "31500", {30000, 40000});
  zone(2, "gpuss-0", "-2500");
  zone(0, "cpuss-0", "61000", {50000, 60000, 70000});
  zone(3, "skin-msm", "garbage");  // unreadable now: left out
  std::filesystem::create_directories(root / "cooling_device0");
  DefaultThermal service(root.string());

  EXPECT_EQ(describe(read(service)),
            "cpuss-0/0/61.000000/2 gpuss-0/1/-2.500000/0 battery/2/31.500000/1 ");
  EXPECT_EQ(describe(read(service, true, TT::BATTERY)), "battery/2/31.500000/1 ");

  write(root / "thermal_zone0" / "temp", "71000\n");
  write(root / "thermal_zone3" / "temp", "40000\n");
  EXPECT_EQ(describe(read(service)),
            "cpuss-0/0/71.000000/3 gpuss-0/1/-2.500000/0 skin-msm/3/40.000000/0 "
            "battery/2/31.500000/1 ");

  std::filesystem::remove_all(root);
  service.getCurrentTemperatures(false, TT::CPU, [](const ThermalStatus& s, const auto& all) {
    EXPECT_EQ(s.code, ThermalStatusCode::FAILURE);
    EXPECT_TRUE(all.empty());
  });
}

// Collects notifications and lets the test wait for a number of them.
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
  auto all = std::make_shared<Recorder>();
  auto batteries = std::make_shared<Recorder>();
  auto status = [](const ThermalStatus& s) { EXPECT_EQ(s.code, ThermalStatusCode::SUCCESS); };
  service.registerThermalChangedCallback(all, false, TT::CPU, status);
  service.registerThermalChangedCallback(batteries, true, TT::BATTERY, status);

  // Each step waits for the notice of the one before, so no poll can merge two of them.
  write(root / "thermal_zone0" / "temp", "61000\n");
  all->wait_for(1);
  write(root / "thermal_zone0" / "temp", "59000\n");  // one trip point back down
  all->wait_for(2);
  write(root / "thermal_zone1" / "temp", "36000\n");
  all->wait_for(3);
  write(root / "thermal_zone0" / "temp", "30000\n");
  EXPECT_EQ(all->wait_for(4),
            (std::vector<std::string>{"cpuss-0:2", "cpuss-0:1", "battery:1", "cpuss-0:0"}));
  EXPECT_EQ(batteries->wait_for(1), std::vector<std::string>{"battery:1"});

  service.unregisterThermalChangedCallback(all, status);
  service.unregisterThermalChangedCallback(
      all, [](const ThermalStatus& s) { EXPECT_EQ(s.code, ThermalStatusCode::FAILURE); });
}

class Recipient : public hidl_death_recipient {
 public:
  void serviceDied(std::uint64_t cookie,
                   const android::wp<android::hidl::base::V1_0::IBase>&) override {
    cookies.push_back(cookie);
    thread = std::this_thread::get_id();
  }
  std::vector<std::uint64_t> cookies;
  std::thread::id thread;
};

TEST(ThermalRegistry, HandlesFailAndRecipientsHearWhenTheServiceDies) {
  auto first = std::make_shared<FakeThermal>(std::vector{sensor("cpuss-0", TT::CPU, 40)});
  registry::register_service(first);
  auto handle = IThermal::getService("default", false);
  ASSERT_TRUE(handle);
  EXPECT_FALSE(IThermal::getService("other", false));
  auto told = std::make_shared<Recipient>(), untold = std::make_shared<Recipient>();
  EXPECT_TRUE(handle->linkToDeath(told, 7));
  EXPECT_TRUE(handle->linkToDeath(untold, 8));
  EXPECT_TRUE(handle->unlinkToDeath(untold));

  auto second = std::make_shared<FakeThermal>(std::vector{sensor("gpuss-0", TT::GPU, 50)});
  registry::replace_service(second);
  registry::await_notifications();
  EXPECT_EQ(told->cookies, std::vector<std::uint64_t>{7});
  EXPECT_NE(told->thread, std::this_thread::get_id());
  EXPECT_TRUE(untold->cookies.empty());

  auto call = handle->getCurrentTemperatures(false, TT::CPU, [](auto&, auto&) { FAIL(); });
  EXPECT_FALSE(call.isOk());
  EXPECT_EQ(call.description(), "Status(-129, EX_TRANSACTION_FAILED): 'DEAD_OBJECT'");
  EXPECT_FALSE(handle->linkToDeath(told, 9).withDefault(false));

  auto now = IThermal::getService("default", false);
  ASSERT_TRUE(now);
  std::string name;
  EXPECT_TRUE(now->getCurrentTemperatures(false, TT::CPU,
                                          [&](auto&, const auto& all) { name = all.at(0).name; })
                  .isOk());
  EXPECT_EQ(name, "gpuss-0");

  registry::kill_service();
  registry::await_notifications();
  EXPECT_FALSE(IThermal::getService("default", false));
  EXPECT_EQ(told->cookies, std::vector<std::uint64_t>{7});  // linked to the first only
}

}  // namespace
