#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace emberline::sim {

struct DeviceState;
struct ModelParams;

// The DRAM bandwidth-monitor driver: the period and enables the tool set, and each monitor's
// recent samples, oldest first once the ring has wrapped.
struct BwMonState {
  static constexpr int kMonitors = 3;
  static constexpr int kKeep = 16;
  struct Sample {
    std::uint32_t sequence = 0;
    std::uint32_t used_mbps = 0;
    std::uint32_t available_mbps = 0;
    std::uint32_t ddr_mhz = 0;
  };
  struct Monitor {
    bool enabled = false;
    std::array<Sample, kKeep> ring{};
    int count = 0;
    int next = 0;
  };

  unsigned int period_ms = kDefaultPeriodMs;
  std::uint64_t since_sample_us = 0;  // whole microseconds, so periods add up exactly
  std::uint32_t sequence = 0;
  std::uint64_t noise = 0x9e3779b97f4a7c15ULL;
  std::array<Monitor, kMonitors> monitors{};

  static constexpr unsigned int kDefaultPeriodMs = 100;
};

// Battery and connector quantities that follow the power path slowly.
struct ChargeState {
  double battery_temp_c = 29.0;
  double usb_temp_c = 27.0;
  double battery_power_avg_w = 0.0;
};

// The instrumented-hardware and charging slice of a headset's state.
struct HardwareState {
  BwMonState bwmon;
  ChargeState charge;
};

// Advances the headset's hardware slice by `seconds`, following the rest of its state.
void step_hardware(DeviceState& state, const ModelParams& params, double seconds);

// What the driver does with bytes the tool wrote into one of its nodes.
void hardware_node_written(HardwareState& hw, std::string_view path, std::string_view bytes);

// The client that monitor `m` serves, as its client node names it.
std::string_view bwmon_client(int m);

}  // namespace emberline::sim
