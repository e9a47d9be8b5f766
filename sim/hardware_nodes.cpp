#include "hardware_nodes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace emberline::sim {

namespace {

void add_if_absent(Profile& p, Node node) {
  bool present = std::any_of(p.nodes.begin(), p.nodes.end(),
                             [&](const Node& n) { return n.path == node.path; });
  if (!present) p.nodes.push_back(std::move(node));
}

Node fixed(std::string path, std::string content) {
  return {std::move(path), std::move(content), {}, Recording::none};
}

Node rendered(std::string path, Render render) {
  return {std::move(path), {}, std::move(render), Recording::none};
}

std::string integer(double value) {
  return std::to_string(std::llround(value)) + "\n";
}

// The power-supply class in its own units: tenths of a degree, tenths of a second, micro units,
// and power in tenths of a microwatt.
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
      fixed(battery + "charge_full", integer(capacity_uah * 0.964)),
      rendered(battery + "status",
               [](const DeviceState& s) {
                 return std::string(s.charging ? "Charging\n" : "Discharging\n");
               }),
      fixed(battery + "cycle_count", "87\n"),
      fixed(battery + "present", "1\n"),
      rendered(
          battery + "charge_counter",
          [capacity_uah](const DeviceState& s) { return integer(s.soc * capacity_uah * 0.964); }),
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
  for (Node& node : nodes) add_if_absent(p, std::move(node));
}

// Watts of a rail: a floor, plus a share of the system's draw above idle.
struct Rail {
  const char* name;
  double floor_w;
  double per_amp_w;
};

double rail_watts(const Rail& rail, const DeviceState& s, double idle_a) {
  return rail.floor_w + rail.per_amp_w * std::max(0.0, s.system_a - idle_a);
}

// Quillon rails under the powercap class, one "epm:<hex>" directory each, in microwatts.
void add_powercap(Profile& p) {
  static constexpr Rail kRails[] = {
      {"apc0", 0.060, 0.55}, {"apc1", 0.020, 0.85}, {"gfx", 0.045, 0.70},    {"ddr", 0.110, 0.30},
      {"cx", 0.080, 0.20},   {"mx", 0.050, 0.08},   {"display", 0.420, 0.0}, {"cam", 0.160, 0.12},
  };
  const double idle_a = p.model.power.idle_a;
  for (std::size_t i = 0; i < std::size(kRails); ++i) {
    char dir[64];
    std::snprintf(dir, sizeof dir, "/sys/class/powercap/epm:%zx/", i);
    const Rail rail = kRails[i];
    add_if_absent(p, fixed(std::string(dir) + "name", std::string(rail.name) + "\n"));
    add_if_absent(p, rendered(std::string(dir) + "power_uw", [rail, idle_a](const DeviceState& s) {
                    return integer(rail_watts(rail, s, idle_a) * 1e6);
                  }));
  }
}

// The bandwidth-monitor driver: a period and three monitors that it reads and shows as the tool
// sets them, and the sample lists it refreshes at that period while a monitor is on.
void add_bwmon(Profile& p) {
  const std::string root = "/sys/devices/system/cpu/bw_prof/";
  add_if_absent(p, {root + "sample_ms",
                    std::to_string(BwMonState::kDefaultPeriodMs) + "\n",
                    {},
                    Recording::latch});
  for (int m = 0; m < BwMonState::kMonitors; ++m) {
    std::string monitor = root + "bwmon" + std::to_string(m) + "/";
    add_if_absent(p, fixed(monitor + "client", std::string(bwmon_client(m)) + "\n"));
    add_if_absent(p, {monitor + "mon_enabled", "0\n", {}, Recording::latch});
    add_if_absent(p, rendered(monitor + "last_sample", [m](const DeviceState& s) {
                    const BwMonState::Monitor& mon = s.hardware.bwmon.monitors[m];
                    std::string text;
                    char line[64];
                    for (int k = 0; k < mon.count; ++k) {
                      int index =
                          (mon.next - mon.count + k + BwMonState::kKeep) % BwMonState::kKeep;
                      const BwMonState::Sample& x = mon.ring[index];
                      std::snprintf(line, sizeof line, "%x\t%x\t%x\t%x\n", x.sequence, x.used_mbps,
                                    x.available_mbps, x.ddr_mhz);
                      text += line;
                    }
                    return text;
                  }));
  }
}

// A Brantley engineering sample's two rail monitors: available_rails names the rails by id,
// average_value gives each id's voltage and current in millionths.
void add_iio_rails(Profile& p) {
  struct Device {
    const char* path;
    Rail rails[4];
  };
  static constexpr Device kDevices[] = {
      {"/sys/bus/iio/devices/iio:device3/",
       {{"VPH_S7S8S9A", 0.040, 1.10},
        {"VPH_S10A", 0.015, 0.45},
        {"VPH_S1S2S3A", 0.210, 0.10},
        {"VPH_S3C", 0.070, 0.18}}},
      {"/sys/bus/iio/devices/iio:device4/",
       {{"VPH_S1S2C", 0.030, 0.75},
        {"VPH_S7C", 0.025, 0.12},
        {"S1H", 0.055, 0.16},
        {"L3A", 0.012, 0.03}}},
  };
  constexpr double kRailVolts = 3.8;
  const double idle_a = p.model.power.idle_a;
  for (const Device& device : kDevices) {
    std::string rails;
    for (int id = 0; id < 4; ++id) rails += std::to_string(id) + ":" + device.rails[id].name + "\n";
    add_if_absent(p, fixed(std::string(device.path) + "available_rails", rails));
    add_if_absent(p, rendered(std::string(device.path) + "average_value",
                              [device, idle_a](const DeviceState& s) {
                                std::string text;
                                for (int id = 0; id < 4; ++id) {
                                  double amps =
                                      rail_watts(device.rails[id], s, idle_a) / kRailVolts;
                                  text += std::to_string(id) + "," +
                                          std::to_string(std::llround(kRailVolts * 1e6)) + "," +
                                          std::to_string(std::llround(amps * 1e6)) + "\n";
                                }
                                return text;
                              }));
  }
}

}  // namespace

void add_hardware(Profile& p) {
  if (p.device == "fennick") {
    add_charge_attributes(p);
    add_powercap(p);
    add_bwmon(p);
  } else if (p.device == "brantley") {
    add_iio_rails(p);
  }
}

}  // namespace emberline::sim
