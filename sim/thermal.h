#pragma once

#include <array>
#include <string_view>

namespace emberline::sim {

struct DeviceState;
struct Profile;

// One thermal zone: where it rests, how far it climbs per watt the system draws above rest, how
// fast it gets there, and its trip points (0 ends the list).
struct ZoneSpec {
  std::string_view name;
  double rest_c;
  double c_per_w;
  double tau_s;
  std::array<double, 6> trips_c;
};

// thermal_zone0, thermal_zone1, ... in this order.
inline constexpr std::array<ZoneSpec, 14> kThermalZones{{
    {"cpuss-0", 38.0, 6.0, 2.0, {50, 58, 66, 74, 82, 90}},
    {"cpuss-1", 38.5, 6.3, 2.0, {50, 58, 66, 74, 82, 90}},
    {"cpuss-2", 37.5, 5.7, 2.5, {50, 58, 66, 74, 82, 90}},
    {"cpuss-3", 38.0, 6.1, 2.5, {50, 58, 66, 74, 82, 90}},
    {"cpu0-usr", 39.0, 6.0, 2.0, {}},
    {"gpuss-0", 36.0, 5.0, 3.0, {52, 60, 68, 76, 84, 92}},
    {"gpuss-1", 36.5, 5.2, 3.0, {52, 60, 68, 76, 84, 92}},
    {"battery", 29.0, 1.6, 40.0, {38, 42, 46}},
    {"skin-msm", 31.0, 2.4, 15.0, {40, 44, 48}},
    {"skin-therm", 30.5, 2.0, 20.0, {40, 44, 48}},
    {"disp-therm", 32.0, 1.2, 10.0, {}},
    {"camera-therm", 33.0, 0.8, 10.0, {}},
    {"xo-therm", 30.0, 0.9, 20.0, {}},
    {"pm8150-tz", 35.0, 1.5, 5.0, {}},
}};

// Fan speed with the cores at rest; it climbs with the hottest core.
inline constexpr double kFanRestRpm = 1500;

constexpr std::array<double, kThermalZones.size()> rest_temperatures() {
  std::array<double, kThermalZones.size()> t{};
  for (std::size_t i = 0; i < t.size(); ++i) t[i] = kThermalZones[i].rest_c;
  return t;
}

struct ThermalState {
  std::array<double, kThermalZones.size()> zone_c = rest_temperatures();
  double fan_rpm = kFanRestRpm;
};

// Moves every zone and the fan one step of `seconds` towards where the system's power drives them.
void step_thermal(DeviceState& state, double seconds);

// The thermal class's zones and the fan's hwmon node.
void add_thermal(Profile& profile);

}  // namespace emberline::sim
