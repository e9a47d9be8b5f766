#pragma once

#include <array>
#include <string>

namespace emberline::sim {

struct DeviceState;
struct ModelParams;
struct Profile;

// One thermal zone: where it rests, how far it climbs per watt the system draws above rest, how
// fast it gets there, its trip points (0 ends the list), and whether it is a core's, whose heat
// drives the fan. Its name is the profile's.
struct ZoneSpec {
  double rest_c;
  double c_per_w;
  double tau_s;
  std::array<double, 6> trips_c;
  bool core = false;
};

// thermal_zone0, thermal_zone1, ... in this order: four cores, the CPU's user sensor, two GPU
// sensors, the battery, two skin sensors, display, camera, crystal and PMIC.
inline constexpr std::array<ZoneSpec, 14> kThermalZones{{
    {38.0, 6.0, 2.0, {50, 58, 66, 74, 82, 90}, true},
    {38.5, 6.3, 2.0, {50, 58, 66, 74, 82, 90}, true},
    {37.5, 5.7, 2.5, {50, 58, 66, 74, 82, 90}, true},
    {38.0, 6.1, 2.5, {50, 58, 66, 74, 82, 90}, true},
    {39.0, 6.0, 2.0, {}},
    {36.0, 5.0, 3.0, {52, 60, 68, 76, 84, 92}},
    {36.5, 5.2, 3.0, {52, 60, 68, 76, 84, 92}},
    {29.0, 1.6, 40.0, {38, 42, 46}},
    {31.0, 2.4, 15.0, {40, 44, 48}},
    {30.5, 2.0, 20.0, {40, 44, 48}},
    {32.0, 1.2, 10.0, {}},
    {33.0, 0.8, 10.0, {}},
    {30.0, 0.9, 20.0, {}},
    {35.0, 1.5, 5.0, {}},
}};

// The name each zone's `type` node gives, zone by zone. The thermal service takes a sensor's kind
// from how its name begins (cpu, gpu, batt, skin).
using SensorNames = std::array<std::string, kThermalZones.size()>;

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
void step_thermal(DeviceState& state, const ModelParams& params, double seconds);

// The thermal class's zones, named as the profile names them, and the fan's hwmon node.
void add_thermal(Profile& profile);

}  // namespace emberline::sim
