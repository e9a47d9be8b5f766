// The thermal service stand-in and the thermals plugin with the service's threads at work: the
// poll thread's notices, the service's process ending with its directory and starting again, and
// notifications and death notices racing the plugin's measurement thread. Meant also for
// ThreadSanitizer.

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "fake_thermal.h"
#include "platform/thermal/default_thermal.h"
#include "plugins/thermals_plugin.h"

namespace {

using namespace thermal_test;
using namespace android::hardware::thermal::V2_0::implementation;
using emberline::ThermalsPlugin;
using IBase = android::hidl::base::V1_0::IBase;
namespace fs = std::filesystem;

// The zones test below covers the common cases; these are the edges.
TEST(ThermalService, ParsingEdges) {
  EXPECT_EQ(sensor_type("Cpu-0"), TT::UNKNOWN);
  EXPECT_EQ(parse_integer("37000 \t\r\n"), 37000);
  EXPECT_FALSE(zone_number("thermal_zone3a"));
  EXPECT_EQ(severity_at(9, {1, 2, 3, 4, 5, 6, 7, 8}), TS::SHUTDOWN);
}

// Seen calls of the service's threads, in order; a test waits for as many as it expects.
class Recorder : public IThermalChangedCallback, public hidl_death_recipient {
 public:
  Return<void> notifyThrottling(const Temperature& t) override {
    add(t.name + ":" + std::to_string(static_cast<int>(t.throttlingStatus)));
    return Void();
  }
  void serviceDied(std::uint64_t cookie, const android::wp<IBase>&) override {
    add("died:" + std::to_string(cookie));
  }
  std::vector<std::string> wait_for(std::size_t count) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(10), [&] { return seen.size() >= count; });
    return seen;
  }

 private:
  void add(std::string call) {
    std::lock_guard lock(mutex);
    seen.push_back(std::move(call));
    changed.notify_all();
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> seen;
};

// Whole files at once, so that the poll thread never reads half a number.
void write(const fs::path& path, const std::string& text) {
  std::ofstream(path.string() + ".next") << text << "\n";
  fs::rename(path.string() + ".next", path);
}

void zone(const fs::path& root, int n, const std::string& type, const std::string& temp,
          std::vector<long> trips = {}) {
  fs::path dir = root / ("thermal_zone" + std::to_string(n));
  fs::create_directories(dir);
  write(dir / "type", type);
  write(dir / "temp", temp);
  for (std::size_t k = 0; k < trips.size(); ++k) {
    write(dir / ("trip_point_" + std::to_string(k) + "_temp"), std::to_string(trips[k]));
  }
}

std::string read(IThermal& service, bool filter = false, TT type = TT::CPU) {
  std::string text;
  auto transport =
      service.getCurrentTemperatures(filter, type, [&](const ThermalStatus&, const auto& all) {
        for (const auto& t : all) {
          text += t.name + "/" + std::to_string(int(t.type)) + "/" + std::to_string(t.value) + "/" +
                  std::to_string(int(t.throttlingStatus)) + " ";
        }
      });
  return transport.isOk() ? text : transport.description();
}

// The default service reads its zones afresh at each call and tells each change of severity once;
// its process lives as long as their directory can be listed: moved away, it dies once, calls
// through its handles fail, and getService starts a new one when the directory is back.
TEST(ThermalService, DefaultServiceWhileItsZonesCanBeListed) {
  const fs::path root = fs::temp_directory_path() / ("thermal-" + std::to_string(::getpid()));
  const fs::path away = root.string() + "-away";
  zone(root, 10, "battery", "31500", {40000, 30000});  // trips in any order
  zone(root, 2, "gpuss-0", "-2500");
  zone(root, 0, "cpuss-0", "61000", {50000, 60000, 70000});
  zone(root, 3, "skin-msm", "45.2");  // unreadable now: left out
  registry::serve_default(root.string(), std::chrono::milliseconds(5));
  auto first = IThermal::getService("default", false);
  ASSERT_TRUE(first);
  EXPECT_EQ(read(*first), "cpuss-0/0/61.000000/2 gpuss-0/1/-2.500000/0 battery/2/31.500000/1 ");
  EXPECT_EQ(read(*first, true, TT::BATTERY), "battery/2/31.500000/1 ");

  auto all = std::make_shared<Recorder>(), batteries = std::make_shared<Recorder>();
  first->registerThermalChangedCallback(all, false, TT::CPU, [](const ThermalStatus&) {});
  first->registerThermalChangedCallback(batteries, true, TT::BATTERY, [](const ThermalStatus&) {});
  // Each change waits for the notice of the one before, so that no poll sees two at once.
  const std::pair<int, const char*> changes[] = {
      {0, "70000"}, {0, "59000"}, {10, "41000"}, {0, "40000"}};
  for (std::size_t i = 0; i < std::size(changes); ++i) {
    write(root / ("thermal_zone" + std::to_string(changes[i].first)) / "temp", changes[i].second);
    all->wait_for(i + 1);
  }
  EXPECT_EQ(read(*first, true, TT::CPU), "cpuss-0/0/40.000000/0 ");
  EXPECT_EQ(all->wait_for(4),
            (std::vector<std::string>{"cpuss-0:3", "cpuss-0:1", "battery:2", "cpuss-0:0"}));
  EXPECT_EQ(batteries->wait_for(1), std::vector<std::string>{"battery:2"});

  auto told = std::make_shared<Recorder>();
  first->linkToDeath(told, 7);
  fs::rename(root, away);
  EXPECT_EQ(told->wait_for(1), std::vector<std::string>{"died:7"});
  EXPECT_FALSE(IThermal::getService("default", false));
  // What the plugin prints of a call that failed, as libhidl describes a dead service's.
  EXPECT_EQ(read(*first), "Status(-129, EX_TRANSACTION_FAILED): 'DEAD_OBJECT'");
  write(away / "thermal_zone3" / "temp", "40000");
  fs::rename(away, root);
  auto second = IThermal::getService("default", false);
  ASSERT_TRUE(second);
  EXPECT_EQ(read(*second),
            "cpuss-0/0/40.000000/0 gpuss-0/1/-2.500000/0 skin-msm/3/40.000000/0 "
            "battery/2/41.000000/2 ");
  registry::await_notifications();
  EXPECT_EQ(told->wait_for(1), std::vector<std::string>{"died:7"});
  fs::remove_all(root);
}

// Notifies through every given service until stopped, cycling the sensors and severities.
std::jthread notifier(std::vector<std::shared_ptr<FakeThermal>> services) {
  return std::jthread([services](std::stop_token stop) {
    for (int i = 0; !stop.stop_requested(); ++i) {
      auto t = services[0]->sensors[i % 3];
      t.throttlingStatus = static_cast<TS>(i % 7);
      for (auto& s : services) s->notify(t);
    }
  });
}

TEST(ThermalsThreads, NotificationsAndRestartsRaceTheMeasurementThread) {
  std::shared_ptr<FakeThermal> first, second, third;
  for (auto* fake : {&first, &second, &third}) {
    *fake = std::make_shared<FakeThermal>(std::vector{sensor("cpuss-0", TT::CPU, 40),
                                                      sensor("cpuss-1", TT::CPU, 41),
                                                      sensor("battery", TT::BATTERY, 30)});
  }
  registry::register_service(first);
  auto plugin = std::make_shared<ThermalsPlugin>();
  // This machine has no fan node, so init and each output end at the fan; the sections, the
  // temperatures and the statuses are all in place before that.
  plugin->init();
  plugin->update_tree_metadata(1, "thermals.");
  testing::internal::CaptureStderr();
  {
    auto notifying = notifier({first, second, third});
    for (int i = 0; i < 300; ++i) {
      plugin->on_output();
      plugin->to_str();
      if (i == 100) registry::replace_service(second);  // reconnects on the registry's thread
      // The next reads reconnect, while the death is told on the registry's thread.
      if (i >= 200 && i % 10 == 0) registry::kill_service();
      if (i >= 200 && i % 10 == 5) registry::register_service(i % 20 == 5 ? third : second);
    }
    registry::await_notifications();
  }
  // Lines written from both threads at once stay whole.
  std::istringstream err(testing::internal::GetCapturedStderr());
  const std::set<std::string> known{"ERROR: Failed to locate/open fan rpm file",
                                    "ERROR: Failed to update fan rpm value",
                                    "ThermalHAL died",
                                    "Unable to get Thermal HAL V2.0",
                                    "ERROR: Thermal HAL unavailable in get_current_temperature",
                                    "Error: Failed to get temperature from thermalHAL"};
  for (std::string line; std::getline(err, line);) EXPECT_EQ(known.count(line), 1u) << line;
  // The plugin ends while its service dies and the dead one still calls it.
  auto notifying = notifier({first, second, third});
  std::thread killer([] { registry::kill_service(); });
  plugin.reset();
  killer.join();
  registry::await_notifications();
}

}  // namespace
