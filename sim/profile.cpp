#include "profile.h"

#include <array>
#include <cmath>

#include "hardware_nodes.h"
#include "proc_tree.h"
#include "thermal.h"

namespace emberline::sim {

std::string micro_units(double value) {
  return std::to_string(std::llround(value * 1e6)) + "\n";
}

namespace {

Node fixed(std::string path, std::string content) {
  return {std::move(path), std::move(content), {}, Recording::none};
}

// A node that shows a model quantity in micro units.
Node micro(std::string path, double DeviceState::*field) {
  return {std::move(path),
          {},
          [field](const DeviceState& s) { return micro_units(s.*field); },
          Recording::none};
}

// Suspend nodes start empty so that every byte in them afterwards is one the tool wrote.
Node recorded(std::string path, Recording recording) {
  return {std::move(path), {}, {}, recording};
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

const WorkloadParams kWorkload{
    .min_phase_s = 0.5, .max_phase_s = 4.0, .idle_share = 0.4, .min_load = 0.3, .max_load = 1.0};

Profile make(std::string name, std::string device, PowerParams power) {
  Profile p;
  p.name = std::move(name);
  p.device = std::move(device);
  p.model = {.power = power, .workload = kWorkload, .stats = {}, .threads = {}};
  add_base(p);
  add_power_supply(p);
  add_stats_slice(p);
  add_thermal(p);
  add_hardware(p);
  add_proc_tree(p);
  return p;
}

std::vector<Profile> make_profiles() {
  std::vector<Profile> all;
  all.push_back(make("generic", "generic",
                     {.idle_a = 0.35,
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
                      .usb_connected = true}));
  all.push_back(make("fennick", "fennick",
                     {.idle_a = 0.42,
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
                      .usb_connected = true}));
  all.push_back(make("brantley", "brantley",
                     {.idle_a = 0.30,
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
                      .usb_connected = true}));
  // The generic headset with as many threads as a busy one has, and ten times that.
  all.push_back(crowded(all.front(), "generic-300", 300));
  all.push_back(crowded(all.front(), "generic-3000", 3000));
  return all;
}

}  // namespace

const std::vector<Profile>& profiles() {
  static const std::vector<Profile> all = make_profiles();
  return all;
}

const Profile* find_profile(std::string_view name) {
  for (const Profile& p : profiles()) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

}  // namespace emberline::sim
