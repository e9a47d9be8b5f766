#include "profile.h"

#include <cmath>
#include <stdexcept>
#include <unordered_set>

#include "hardware_nodes.h"
#include "proc_tree.h"
#include "stats_slice.h"
#include "thermal.h"

namespace emberline::sim {

std::string micro_units(double value) {
  return std::to_string(std::llround(value * 1e6)) + "\n";
}

Node fixed(std::string path, std::string content) {
  return {std::move(path), std::move(content), {}, Recording::none};
}

Node rendered(std::string path, Render render) {
  return {std::move(path), {}, std::move(render), Recording::none};
}

Node recorded(std::string path, Recording recording, std::string content) {
  return {std::move(path), std::move(content), {}, recording};
}

namespace {

// A node that shows a model quantity in micro units.
Node micro(std::string path, double DeviceState::*field) {
  return rendered(std::move(path), [field](const DeviceState& s) { return micro_units(s.*field); });
}

// What every headset has: its identity and the places the tool writes to.
void add_base(Profile& p) {
  p.nodes.push_back(
      fixed("/system/build.prop", "ro.build.version.sdk=32\nro.product.name=" + p.device +
                                      "\nro.product.device=" + p.device + "\n"));
  p.dirs.insert(p.dirs.end(), {"/system/bin", "/data/local/tmp", "/data/misc/dsp"});
}

void add_power_supply(Profile& p) {
  const std::string battery = "/sys/class/power_supply/battery/";
  const std::string usb = "/sys/class/power_supply/usb/";
  // Suspend nodes start empty so that every byte in them afterwards is one the tool wrote.
  p.nodes.insert(p.nodes.end(),
                 {
                     micro(battery + "current_now", &DeviceState::battery_a),
                     micro(battery + "voltage_now", &DeviceState::battery_v),
                     micro(usb + "current_now", &DeviceState::usb_a),
                     micro(usb + "input_current_now", &DeviceState::usb_a),
                     micro(usb + "voltage_now", &DeviceState::usb_v),
                     recorded("/sys/class/qcom-battery/input_suspend", Recording::charge_suspend),
                     recorded(battery + "input_suspend", Recording::charge_suspend),
                     recorded(usb + "input_suspend", Recording::charge_suspend),
                     // These headsets charge over USB only.
                     recorded("/sys/class/power_supply/wireless/input_suspend", Recording::log),
                 });
}

// The slices of a headset, each appending its nodes, in the order they are laid out.
using Slice = void (*)(Profile&);
constexpr Slice kSlices[] = {add_base,    add_power_supply, add_stats_slice,
                             add_thermal, add_hardware,     add_proc_tree};

const WorkloadParams kWorkload{
    .min_phase_s = 0.5, .max_phase_s = 4.0, .idle_share = 0.4, .min_load = 0.3, .max_load = 1.0};

// The zone names of the generations before Maplet and Dorrin.
const SensorNames kSensors{"cpuss-0",    "cpuss-1",      "cpuss-2",  "cpuss-3",  "cpu0-usr",
                           "gpuss-0",    "gpuss-1",      "battery",  "skin-msm", "skin-therm",
                           "disp-therm", "camera-therm", "xo-therm", "pm8150-tz"};

// What the Quillon generation (Fennick, Maplet, Dorrin) has beyond every headset: the charge
// plugin's attributes, powercap rails and the DRAM bandwidth monitors.
Hardware quillon(std::vector<Rail> rails) {
  return {.charge_attributes = true,
          .powercap = std::move(rails),
          .bandwidth_monitors = true,
          .rail_monitors = {}};
}

ModelParams model(PowerParams power, int big_cores) {
  return {.power = power,
          .workload = kWorkload,
          .stats = headset_stats(big_cores),
          .threads = headset_threads()};
}

std::vector<Profile> traits() {
  Profile generic{
      .name = "generic",
      .device = "generic",
      .model = model({.idle_a = 0.35,
                      .load_a = 1.40,
                      .noise_a = 0.03,
                      .capacity_ah = 5.0,
                      .initial_soc = 0.62,
                      .empty_v = 3.45,
                      .full_v = 4.35,
                      .internal_ohm = 0.12,
                      .usb_v = 5.0,
                      .usb_limit_a = 2.0,
                      .charger_efficiency = 0.88,
                      .cable_ohm = 0.05,
                      .usb_connected = true},
                     4),
      .sensors = kSensors,
      .gauge = {},
      .hardware = {},
      .nodes = {},
      .dirs = {},
  };
  Profile fennick{
      .name = "fennick",
      .device = "fennick",
      .model = model({.idle_a = 0.42,
                      .load_a = 1.60,
                      .noise_a = 0.03,
                      .capacity_ah = 5.06,
                      .initial_soc = 0.55,
                      .empty_v = 3.40,
                      .full_v = 4.40,
                      .internal_ohm = 0.10,
                      .usb_v = 9.0,
                      .usb_limit_a = 1.5,
                      .charger_efficiency = 0.90,
                      .cable_ohm = 0.08,
                      .usb_connected = true},
                     2),
      .sensors = kSensors,
      // A battery some 87 cycles old.
      .gauge = {.full_share = 0.964},
      .hardware = quillon({{"apc0", 0.060, 0.55},
                           {"apc1", 0.020, 0.85},
                           {"gfx", 0.045, 0.70},
                           {"ddr", 0.110, 0.30},
                           {"cx", 0.080, 0.20},
                           {"mx", 0.050, 0.08},
                           {"display", 0.420, 0.0},
                           {"cam", 0.160, 0.12}}),
      .nodes = {},
      .dirs = {},
  };
  Profile maplet{
      .name = "maplet",
      .device = "maplet",
      .model = model({.idle_a = 0.38,
                      .load_a = 1.50,
                      .noise_a = 0.03,
                      .capacity_ah = 4.32,
                      .initial_soc = 0.68,
                      .empty_v = 3.40,
                      .full_v = 4.45,
                      .internal_ohm = 0.11,
                      .usb_v = 9.0,
                      .usb_limit_a = 2.0,
                      .charger_efficiency = 0.90,
                      .cable_ohm = 0.07,
                      .usb_connected = true},
                     4),
      .sensors = {"cpuss-0-0", "cpuss-0-1", "cpuss-1-0", "cpuss-1-1", "cpu-1-0-usr", "gpuss-0",
                  "gpuss-1", "battery-gauge", "skin-msm-therm", "skin-back-therm", "disp0-therm",
                  "cam-flash-therm", "xo-therm", "pmk8550-tz"},
      .gauge = {.full_share = 0.982},
      .hardware = quillon({{"cpu_little", 0.050, 0.50},
                           {"cpu_big", 0.025, 0.90},
                           {"gpu", 0.040, 0.75},
                           {"ddr", 0.100, 0.28},
                           {"cx", 0.075, 0.18},
                           {"mxc", 0.045, 0.07},
                           {"nsp", 0.030, 0.25},
                           {"disp", 0.380, 0.0},
                           {"cam", 0.150, 0.10}}),
      .nodes = {},
      .dirs = {},
  };
  Profile dorrin{
      .name = "dorrin",
      .device = "dorrin",
      .model = model({.idle_a = 0.45,
                      .load_a = 1.75,
                      .noise_a = 0.03,
                      .capacity_ah = 5.5,
                      .initial_soc = 0.47,
                      .empty_v = 3.40,
                      .full_v = 4.40,
                      .internal_ohm = 0.09,
                      .usb_v = 9.0,
                      .usb_limit_a = 2.2,
                      .charger_efficiency = 0.91,
                      .cable_ohm = 0.06,
                      .usb_connected = true},
                     2),
      .sensors = {"cpuss-l0", "cpuss-l1", "cpuss-b0", "cpuss-b1", "cpu-big-usr", "gpuss-top",
                  "gpuss-bottom", "batt-therm", "skin-front", "skin-rear", "disp-panel",
                  "cam-ir-therm", "xo-therm", "pm8550b-tz"},
      .gauge = {.full_share = 0.951},
      .hardware = quillon({{"vdd_cpu_little", 0.055, 0.52},
                           {"vdd_cpu_big", 0.030, 0.95},
                           {"vdd_gfx", 0.050, 0.80},
                           {"vdd_ddr", 0.120, 0.32},
                           {"vdd_cx", 0.085, 0.20},
                           {"vdd_mx", 0.050, 0.08},
                           {"vdd_disp", 0.450, 0.0}}),
      .nodes = {},
      .dirs = {},
  };
  Profile brantley{
      .name = "brantley",
      .device = "brantley",
      .model = model({.idle_a = 0.30,
                      .load_a = 1.20,
                      .noise_a = 0.02,
                      .capacity_ah = 3.64,
                      .initial_soc = 0.71,
                      .empty_v = 3.50,
                      .full_v = 4.40,
                      .internal_ohm = 0.14,
                      .usb_v = 5.0,
                      .usb_limit_a = 1.8,
                      .charger_efficiency = 0.87,
                      .cable_ohm = 0.05,
                      .usb_connected = true},
                     4),
      .sensors = kSensors,
      .gauge = {},
      .hardware = {.charge_attributes = false,
                   .powercap = {},
                   .bandwidth_monitors = false,
                   .rail_monitors = {{"/sys/bus/iio/devices/iio:device3/",
                                      {{"VPH_S7S8S9A", 0.040, 1.10},
                                       {"VPH_S10A", 0.015, 0.45},
                                       {"VPH_S1S2S3A", 0.210, 0.10},
                                       {"VPH_S3C", 0.070, 0.18}}},
                                     {"/sys/bus/iio/devices/iio:device4/",
                                      {{"VPH_S1S2C", 0.030, 0.75},
                                       {"VPH_S7C", 0.025, 0.12},
                                       {"S1H", 0.055, 0.16},
                                       {"L3A", 0.012, 0.03}}}}},
      .nodes = {},
      .dirs = {},
  };
  // The generic headset with as many threads as a busy one has, and ten times that.
  Profile crowded = generic, very_crowded = generic;
  crowded.name = "generic-300";
  crowded.model.threads = headset_threads(300);
  very_crowded.name = "generic-3000";
  very_crowded.model.threads = headset_threads(3000);
  return {generic, fennick, brantley, crowded, very_crowded, maplet, dorrin};
}

std::vector<Profile> make_profiles() {
  std::vector<Profile> all;
  for (Profile& p : traits()) all.push_back(build_profile(std::move(p)));
  return all;
}

}  // namespace

const std::vector<Profile>& profiles() {
  static const std::vector<Profile> all = make_profiles();
  return all;
}

Profile build_profile(Profile p) {
  for (Slice slice : kSlices) slice(p);
  std::unordered_set<std::string_view> paths;
  for (const Node& node : p.nodes) {
    if (!paths.insert(node.path).second) {
      throw std::logic_error("profile " + p.name + ": two nodes at " + node.path);
    }
  }
  return p;
}

const Profile* find_profile(std::string_view name) {
  for (const Profile& p : profiles()) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

}  // namespace emberline::sim
