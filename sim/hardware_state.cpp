#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

#include "model.h"

namespace emberline::sim {

namespace {

constexpr std::string_view kBwProf = "/sys/devices/system/cpu/bw_prof/";
constexpr std::array<std::string_view, BwMonState::kMonitors> kClients = {"cpu", "gpu", "total"};
// DDR operating points in MHz; the bus moves 16 bytes per clock.
constexpr std::array<std::uint32_t, 5> kDdrLevels = {547, 1017, 1555, 2092, 3196};
constexpr std::uint32_t kBytesPerClock = 16;

// The driver's first number in a node, the way kstrtouint reads it: up to the line end.
bool leading_number(std::string_view text, unsigned int& out) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  return error == std::errc() && end != text.data();
}

double jitter(BwMonState& b) {
  b.noise ^= b.noise << 13;
  b.noise ^= b.noise >> 7;
  b.noise ^= b.noise << 17;
  return static_cast<double>(b.noise >> 11) * 0x1.0p-53 * 2.0 - 1.0;
}

void take_sample(BwMonState& b, const DeviceState& s) {
  double cpu = 1400 + 5200 * s.load + 300 * jitter(b);
  double gpu = 700 + 3800 * s.load * s.load + 250 * jitter(b);
  double other = 650 + 120 * jitter(b);
  double used_total = cpu + gpu + other;
  // The governor picks the lowest level that keeps the bus under two-thirds busy.
  std::uint32_t ddr = kDdrLevels.back();
  for (std::uint32_t level : kDdrLevels) {
    if (used_total < level * kBytesPerClock * 2.0 / 3.0) {
      ddr = level;
      break;
    }
  }
  std::uint32_t available = ddr * kBytesPerClock;
  std::array<double, BwMonState::kMonitors> used = {cpu, gpu, used_total};
  ++b.sequence;
  for (int m = 0; m < BwMonState::kMonitors; ++m) {
    BwMonState::Monitor& monitor = b.monitors[m];
    if (!monitor.enabled) continue;
    monitor.ring[monitor.next] = {b.sequence, static_cast<std::uint32_t>(std::max(0.0, used[m])),
                                  available, ddr};
    monitor.next = (monitor.next + 1) % BwMonState::kKeep;
    monitor.count = std::min(monitor.count + 1, BwMonState::kKeep);
  }
}

void step_bwmon(BwMonState& b, const DeviceState& s, double dt) {
  bool any = std::any_of(b.monitors.begin(), b.monitors.end(),
                         [](const BwMonState::Monitor& m) { return m.enabled; });
  if (!any) {
    b.since_sample_us = 0;
    return;
  }
  const std::uint64_t period_us = std::uint64_t{b.period_ms} * 1000;
  b.since_sample_us += static_cast<std::uint64_t>(std::llround(dt * 1e6));
  for (; b.since_sample_us >= period_us; b.since_sample_us -= period_us) take_sample(b, s);
}

void step_charge(ChargeState& c, const DeviceState& s, double dt) {
  // Cell heat grows with current squared; charging adds the charger IC's share. Minutes, not
  // seconds, move a battery's temperature.
  double battery_target = 27.0 + 2.2 * s.battery_a * s.battery_a + (s.charging ? 4.5 : 0.0);
  c.battery_temp_c += (battery_target - c.battery_temp_c) * dt / 45.0;
  double usb_target = 26.0 + 0.9 * s.usb_a * s.usb_v / 5.0;
  c.usb_temp_c += (usb_target - c.usb_temp_c) * dt / 30.0;
  double power_w = s.battery_a * s.battery_v;
  c.battery_power_avg_w += (power_w - c.battery_power_avg_w) * std::min(1.0, dt / 5.0);
}

}  // namespace

std::string_view bwmon_client(int m) {
  return kClients[m];
}

void step_hardware(DeviceState& s, const ModelParams&, double seconds) {
  step_bwmon(s.hardware.bwmon, s, seconds);
  step_charge(s.hardware.charge, s, seconds);
}

void hardware_node_written(HardwareState& hw, std::string_view path, std::string_view bytes) {
  if (!path.starts_with(kBwProf)) return;
  path.remove_prefix(kBwProf.size());
  unsigned int number = 0;
  if (!leading_number(bytes, number)) return;
  if (path == "sample_ms") {
    // The driver refuses a period of 0 and keeps the one it had.
    if (number > 0) hw.bwmon.period_ms = number;
    return;
  }
  for (int m = 0; m < BwMonState::kMonitors; ++m) {
    if (path != "bwmon" + std::to_string(m) + "/mon_enabled") continue;
    BwMonState::Monitor& monitor = hw.bwmon.monitors[m];
    monitor.enabled = number != 0;
    // A stopped monitor drops its history; its list reads empty until it runs again.
    if (!monitor.enabled) monitor = {};
  }
}

}  // namespace emberline::sim
