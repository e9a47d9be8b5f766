#include "thermal.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "profile.h"

namespace emberline::sim {

namespace {

// What the headset draws at rest, in watts; zones climb with what it draws above that.
constexpr double kRestWatts = 1.3;
constexpr double kFanRpmPerC = 220;
constexpr double kFanMaxRpm = 6500;
constexpr double kFanTauS = 2.0;
constexpr double kFanStartC = 45;

double approach(double now, double target, double seconds, double tau) {
  return now + (target - now) * std::min(1.0, seconds / tau);
}

// Sensors report in millidegrees, at a resolution of a tenth of a degree.
std::string millidegrees(double celsius) {
  return std::to_string(std::lround(celsius * 10) * 100) + "\n";
}

}  // namespace

void step_thermal(DeviceState& s, const ModelParams&, double seconds) {
  const double above_rest = std::max(0.0, s.system_a * s.battery_v - kRestWatts);
  double hottest_core = 0;
  for (std::size_t i = 0; i < kThermalZones.size(); ++i) {
    const ZoneSpec& z = kThermalZones[i];
    double& t = s.thermal.zone_c[i];
    t = approach(t, z.rest_c + z.c_per_w * above_rest, seconds, z.tau_s);
    if (z.core) hottest_core = std::max(hottest_core, t);
  }
  const double fan_target =
      std::clamp(kFanRestRpm + (hottest_core - kFanStartC) * kFanRpmPerC, kFanRestRpm, kFanMaxRpm);
  s.thermal.fan_rpm = approach(s.thermal.fan_rpm, fan_target, seconds, kFanTauS);
}

void add_thermal(Profile& p) {
  for (std::size_t i = 0; i < kThermalZones.size(); ++i) {
    const ZoneSpec& z = kThermalZones[i];
    const std::string dir = "/sys/class/thermal/thermal_zone" + std::to_string(i) + "/";
    p.nodes.push_back(fixed(dir + "type", p.sensors[i] + "\n"));
    p.nodes.push_back(rendered(
        dir + "temp", [i](const DeviceState& s) { return millidegrees(s.thermal.zone_c[i]); }));
    for (std::size_t k = 0; k < z.trips_c.size() && z.trips_c[k] != 0; ++k) {
      const std::string trip = dir + "trip_point_" + std::to_string(k) + "_";
      p.nodes.push_back(fixed(trip + "temp", millidegrees(z.trips_c[k])));
      p.nodes.push_back(fixed(trip + "type", "passive\n"));
    }
  }
  // The fan is the third hwmon device; the PMIC's sensors come first.
  p.nodes.push_back(fixed("/sys/class/hwmon/hwmon0/name", "pm8150_tz\n"));
  p.nodes.push_back(fixed("/sys/class/hwmon/hwmon3/name", "fan\n"));
  p.nodes.push_back(rendered("/sys/class/hwmon/hwmon3/rpm", [](const DeviceState& s) {
    return std::to_string(std::lround(s.thermal.fan_rpm / 10) * 10) + "\n";
  }));
}

}  // namespace emberline::sim
