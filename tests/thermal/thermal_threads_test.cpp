// The thermals plugin while the service's threads call in: notifications and death notices race
// the measurement thread's reads and renders, and the plugin's end. Meant for ThreadSanitizer.

#include <gtest/gtest.h>

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
std::jthread notifier(std::vector<std::shared_ptr<FakeThermal>> services) {
  return std::jthread([services](std::stop_token stop) {
    for (int i = 0; !stop.stop_requested(); ++i) {
      auto t = headset()[i % 3];
      t.throttlingStatus = static_cast<TS>(i % 7);
      for (auto& s : services) s->notify(t);
    }
  });
}

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
    auto notifying = notifier({first, second, third});
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
  auto notifying = notifier({first, second, third});
  std::thread killer([] { registry::kill_service(); });
  plugin.reset();
  killer.join();
  registry::await_notifications();
}

}  // namespace
