#pragma once

#include <cstdint>
#include <random>
#include <string_view>

#include "hardware_state.h"
#include "log_activity.h"
#include "proc_tree.h"
#include "stats_slice.h"
#include "thermal.h"

namespace emberline::sim {

// What the headset is asked to do: alternating idle and load phases of random length.
struct WorkloadParams {
  double min_phase_s;
  double max_phase_s;
  double idle_share;  // chance that a new phase is idle
  double min_load;    // load level of a busy phase, 0..1
  double max_load;
};

// The power path of one headset. Currents in amps, voltages in volts, at the battery terminals
// unless named usb_.
struct PowerParams {
  double idle_a;   // system draw at rest
  double load_a;   // extra draw at full load
  double noise_a;  // step-to-step jitter of the draw
  double capacity_ah;
  double initial_soc;  // state of charge at start, 0..1
  double empty_v;      // open-circuit voltage at 0 % ...
  double full_v;       // ... and at 100 %
  double internal_ohm;
  double usb_v;        // charger voltage with no load
  double usb_limit_a;  // input current limit the charger runs at
  double charger_efficiency;
  double cable_ohm;
  bool usb_connected;
};

struct ModelParams {
  PowerParams power;
  WorkloadParams workload;
  StatsParams stats{};
  ProcTreeParams threads;
};

// One instant of the headset. battery_a follows the kernel's sign: positive while the battery
// discharges, negative while it charges.
struct DeviceState {
  double load = 0;
  double system_a = 0;
  double battery_a = 0;
  double battery_v = 0;
  double usb_a = 0;
  double usb_v = 0;
  double soc = 0;
  bool charging = false;
  StatsState stats;
  LogActivity log;
  ThermalState thermal;
  HardwareState hardware;
  ProcTreeState threads;
};

// How every slice of the headset advances: its part of `state` by one step of `seconds`, from the
// profile's parameters and the rest of the state as the slices before it left it.
using SliceStep = void (*)(DeviceState& state, const ModelParams& params, double seconds);

// Advances the headset in fixed steps. Deterministic for a seed, and independent of wall time, so
// tests can drive it step by step.
class DeviceModel {
 public:
  static constexpr double kStepSeconds = 0.010;

  DeviceModel(const ModelParams& params, std::uint64_t seed);

  void step();
  void set_charging_suspended(bool suspended);
  // The tool wrote `bytes` into the node at `path`; a driver behind it may act on them.
  void node_written(std::string_view path, std::string_view bytes);

  const DeviceState& state() const { return state_; }
  std::uint64_t steps() const { return steps_; }

 private:
  double uniform(double low, double high);
  void next_phase();
  void settle();

  ModelParams params_;
  std::mt19937_64 rng_;
  DeviceState state_;
  double target_a_ = 0;    // draw the current phase pulls towards
  double smoothed_a_ = 0;  // draw without jitter
  std::uint64_t phase_steps_left_ = 0;
  std::uint64_t steps_ = 0;
  bool suspended_ = false;
};

}  // namespace emberline::sim
