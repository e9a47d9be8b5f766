#include "hardware_nodes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>

namespace emberline::sim {

namespace {

std::string integer(double value) {
  return std::to_string(std::llround(value)) + "\n";
}

// The power-supply class in its own units: tenths of a degree, tenths of a second, micro units,
// and power in tenths of a microwatt. The gauge's charge_counter and charge_full are the stats
// slice's.
void add_charge_attributes(Profile& p) {
  const std::string battery = "/sys/class/power_supply/battery/";
  const std::string usb = "/sys/class/power_supply/usb/";
  const PowerParams power = p.model.power;
  const double capacity_uah = power.capacity_ah * 1e6;

  auto seconds_to = [power](const DeviceState& s, bool full) {
    // Hours of charge left at the present current; 0 when the battery is not going that way.
    double amps = full ? -s.battery_a : s.battery_a;
    if (amps <= 0.01) return 0.0;
    double ah = (full ? 1.0 - s.soc : s.soc) * power.capacity_ah;
    return ah / amps * 3600.0;
  };

  std::vector<Node> nodes = {
      fixed(usb + "typec_power_role", "source [sink] dual\n"),
      fixed(usb + "scope", "Unknown\n"),
      fixed(usb + "output_current_limit", "0\n"),
      fixed(usb + "current_max", micro_units(power.usb_limit_a)),
      fixed(usb + "online", power.usb_connected ? "1\n" : "0\n"),
      fixed(usb + "type", "USB_PD\n"),
      fixed(usb + "usb_type", "Unknown SDP CDP DCP [PD] PD_DRP PD_PPS\n"),
      rendered(usb + "temp",
               [](const DeviceState& s) { return integer(s.hardware.charge.usb_temp_c * 10); }),
      rendered(battery + "time_to_empty_avg",
               [seconds_to](const DeviceState& s) { return integer(seconds_to(s, false) * 10); }),
      rendered(usb + "input_current_limit",
               [power](const DeviceState& s) {
                 return micro_units(s.charging ? power.usb_limit_a : 0.0);
               }),
      rendered(battery + "temp",
               [](const DeviceState& s) { return integer(s.hardware.charge.battery_temp_c * 10); }),
      rendered(battery + "time_to_full_now",
               [seconds_to](const DeviceState& s) { return integer(seconds_to(s, true) * 10); }),
      rendered(battery + "time_to_full_avg",
               [seconds_to](const DeviceState& s) { return integer(seconds_to(s, true) * 10); }),
      fixed(battery + "model_name",
            p.device + "_" + std::to_string(std::lround(capacity_uah / 1000)) + "mAh\n"),
      fixed(battery + "charge_full_design", integer(capacity_uah)),
      rendered(battery + "status",
               [](const DeviceState& s) {
                 return std::string(s.charging ? "Charging\n" : "Discharging\n");
               }),
      fixed(battery + "cycle_count", "87\n"),
      fixed(battery + "present", "1\n"),
      fixed(battery + "health", "Good\n"),
      fixed(battery + "charge_control_limit_max", "12\n"),
      rendered(battery + "power_now",
               [](const DeviceState& s) { return integer(s.battery_a * s.battery_v * 1e7); }),
      rendered(battery + "power_avg",
               [](const DeviceState& s) {
                 return integer(s.hardware.charge.battery_power_avg_w * 1e7);
               }),
      fixed(battery + "technology", "Li-ion\n"),
      fixed(battery + "charge_control_limit", "0\n"),
      fixed(battery + "voltage_max", micro_units(power.full_v)),
      rendered(battery + "voltage_ocv",
               [power](const DeviceState& s) {
                 return micro_units(power.empty_v + (power.full_v - power.empty_v) * s.soc);
               }),
      rendered(battery + "charge_type",
               [](const DeviceState& s) { return std::string(s.charging ? "Fast\n" : "N/A\n"); }),
      fixed(usb + "voltage_max", micro_units(power.usb_v)),
      rendered(battery + "capacity", [](const DeviceState& s) { return integer(s.soc * 100); }),
      fixed(battery + "type", "Battery\n"),
  };
  p.nodes.insert(p.nodes.end(), std::make_move_iterator(nodes.begin()),
                 std::make_move_iterator(nodes.end()));
}

double rail_watts(const Rail& rail, const DeviceState& s, double idle_a) {
  return rail.floor_w + rail.per_amp_w * std::max(0.0, s.system_a - idle_a);
}

// Quillon rails under the powercap class, one "epm:<hex>" directory each, in microwatts.
void add_powercap(Profile& p) {
  const double idle_a = p.model.power.idle_a;
  for (std::size_t i = 0; i < p.hardware.powercap.size(); ++i) {
    char dir[64];
    std::snprintf(dir, sizeof dir, "/sys/class/powercap/epm:%zx/", i);
    const Rail& rail = p.hardware.powercap[i];
    p.nodes.push_back(fixed(std::string(dir) + "name", rail.name + "\n"));
    p.nodes.push_back(rendered(std::string(dir) + "power_uw", [rail, idle_a](const DeviceState& s) {
      return integer(rail_watts(rail, s, idle_a) * 1e6);
    }));
  }
}

// The bandwidth-monitor driver: a period and three monitors that it reads and shows as the tool
// sets them, and the sample lists it refreshes at that period while a monitor is on.
void add_bwmon(Profile& p) {
  const std::string root = "/sys/devices/system/cpu/bw_prof/";
  p.nodes.push_back(recorded(root + "sample_ms", Recording::latch,
                             std::to_string(BwMonState::kDefaultPeriodMs) + "\n"));
  for (int m = 0; m < BwMonState::kMonitors; ++m) {
    std::string monitor = root + "bwmon" + std::to_string(m) + "/";
    p.nodes.push_back(fixed(monitor + "client", std::string(bwmon_client(m)) + "\n"));
    p.nodes.push_back(recorded(monitor + "mon_enabled", Recording::latch, "0\n"));
    p.nodes.push_back(rendered(monitor + "last_sample", [m](const DeviceState& s) {
      const BwMonState::Monitor& mon = s.hardware.bwmon.monitors[m];
      std::string text;
      char line[64];
      for (int k = 0; k < mon.count; ++k) {
        int index = (mon.next - mon.count + k + BwMonState::kKeep) % BwMonState::kKeep;
        const BwMonState::Sample& x = mon.ring[index];
        std::snprintf(line, sizeof line, "%x\t%x\t%x\t%x\n", x.sequence, x.used_mbps,
                      x.available_mbps, x.ddr_mhz);
        text += line;
      }
      return text;
    }));
  }
}

// A Brantley engineering sample's rail monitors: available_rails names the rails by id,
// average_value gives each id's voltage and current in millionths.
void add_rail_monitor(Profile& p, const RailMonitor& monitor) {
  constexpr double kRailVolts = 3.8;
  const double idle_a = p.model.power.idle_a;
  std::string rails;
  for (std::size_t id = 0; id < monitor.rails.size(); ++id) {
    rails += std::to_string(id) + ":" + monitor.rails[id].name + "\n";
  }
  p.nodes.push_back(fixed(monitor.dir + "available_rails", rails));
  p.nodes.push_back(
      rendered(monitor.dir + "average_value", [monitor, idle_a](const DeviceState& s) {
        std::string text;
        for (std::size_t id = 0; id < monitor.rails.size(); ++id) {
          double amps = rail_watts(monitor.rails[id], s, idle_a) / kRailVolts;
          text += std::to_string(id) + "," + std::to_string(std::llround(kRailVolts * 1e6)) + "," +
                  std::to_string(std::llround(amps * 1e6)) + "\n";
        }
        return text;
      }));
}

}  // namespace

void add_hardware(Profile& p) {
  if (p.hardware.charge_attributes) add_charge_attributes(p);
  add_powercap(p);
  if (p.hardware.bandwidth_monitors) add_bwmon(p);
  for (const RailMonitor& monitor : p.hardware.rail_monitors) add_rail_monitor(p, monitor);
}

}  // namespace emberline::sim
