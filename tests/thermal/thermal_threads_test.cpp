// The thermals plugin while the service's threads call in: notifications and death notices race
// the measurement thread's reads and renders, and the plugin's end. Meant for ThreadSanitizer.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "fake_thermal.h"
#include "plugins/thermals_plugin.h"

namespace {

using namespace thermal_test;
using emberline::ThermalsPlugin;
using TT = TemperatureType;
using TS = ThrottlingSeverity;

std::vector<Temperature> headset() {
  return {sensor("cpuss-0", TT::CPU, 40), sensor("cpuss-1", TT::CPU, 41),
          sensor("battery", TT::BATTERY, 30)};
}

// Notifies through every given service until stopped, cycling the severities.
class Notifier {
 public:
  explicit Notifier(std::vector<std::shared_ptr<FakeThermal>> services)
      : thread_([this, services] {
          for (int i = 0; !stop_; ++i) {
            const char* name = i % 3 == 0 ? "battery" : i % 3 == 1 ? "cpuss-0" : "cpuss-1";
            TT type = i % 3 == 0 ? TT::BATTERY : TT::CPU;
            for (auto& s : services) s->notify(sensor(name, type, 0, static_cast<TS>(i % 7)));
          }
        }) {}
  ~Notifier() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string status_line(ThermalsPlugin& plugin) {
  plugin.update_tree_metadata(1, "thermals.");
  std::string text = plugin.to_str();
  return text.substr(text.find("[CPU]"));
}

TEST(ThermalsThreads, NotificationsAndRestartsRaceTheMeasurementThread) {
  auto first = std::make_shared<FakeThermal>(headset());
  auto second = std::make_shared<FakeThermal>(headset());
  auto third = std::make_shared<FakeThermal>(headset());
  registry::register_service(first);
  auto plugin = std::make_shared<ThermalsPlugin>();
  // This machine has no fan node, so init and each output end at the fan; the sections, the
  // temperatures and the statuses are all in place before that.
  plugin->init();
  {
    Notifier notifier({first, second, third});
    for (int i = 0; i < 300; ++i) {
      plugin->on_output();
      status_line(*plugin);
      if (i == 100) registry::replace_service(second);  // reconnects on the registry's thread
      if (i == 200) registry::kill_service();           // the next reads reconnect
      if (i == 250) registry::register_service(third);
    }
    registry::await_notifications();
  }
  EXPECT_EQ(third->callbacks(), 1u);
  third->notify(sensor("cpuss-0", TT::CPU, 0, TS::SEVERE));
  third->notify(sensor("cpuss-1", TT::CPU, 0, TS::LIGHT));
  plugin->on_output();
  EXPECT_EQ(status_line(*plugin), "[CPU] status: SEVERE | cpuss-0: 40.00C | cpuss-1: 41.00C");

  // The plugin ends while its service dies and the dead one still calls it.
  Notifier notifier({first, second, third});
  std::thread killer([] { registry::kill_service(); });
  plugin.reset();
  killer.join();
  registry::await_notifications();
}

}  // namespace
