#include "model.h"

#include <algorithm>
#include <cmath>

namespace emberline::sim {

namespace {
// A draw settles within a few steps of a phase change, as a regulator's output does.
constexpr double kSmoothing = 0.2;
constexpr double kSecondsPerHour = 3600.0;
// Temperatures follow the power of this step, so the power path settles first.
constexpr SliceStep kSlices[] = {step_stats, step_log, step_thermal, step_hardware, step_proc_tree};
}  // namespace

DeviceModel::DeviceModel(const ModelParams& params, std::uint64_t seed)
    : params_(params), rng_(seed) {
  state_.soc = params_.power.initial_soc;
  init_stats(state_.stats, params_.stats);
  state_.threads = initial_proc_tree(params_.threads, seed);
  next_phase();
  smoothed_a_ = target_a_;
  settle();
}

double DeviceModel::uniform(double low, double high) {
  // Our own mapping from raw bits: std's distributions differ between standard libraries, and a
  // seed should give the same run everywhere.
  double unit = static_cast<double>(rng_() >> 11) * 0x1.0p-53;
  return low + (high - low) * unit;
}

void DeviceModel::next_phase() {
  const WorkloadParams& w = params_.workload;
  bool idle = uniform(0, 1) < w.idle_share;
  state_.load = idle ? 0.0 : uniform(w.min_load, w.max_load);
  target_a_ = params_.power.idle_a + state_.load * params_.power.load_a;
  double seconds = uniform(w.min_phase_s, w.max_phase_s);
  phase_steps_left_ = std::max<std::uint64_t>(1, std::llround(seconds / kStepSeconds));
}

void DeviceModel::step() {
  if (phase_steps_left_ == 0) next_phase();
  --phase_steps_left_;
  smoothed_a_ += (target_a_ - smoothed_a_) * kSmoothing;

  const PowerParams& p = params_.power;
  state_.soc -= state_.battery_a * kStepSeconds / kSecondsPerHour / p.capacity_ah;
  state_.soc = std::clamp(state_.soc, 0.0, 1.0);
  settle();
  for (SliceStep step : kSlices) step(state_, params_, kStepSeconds);
  ++steps_;
}

void DeviceModel::set_charging_suspended(bool suspended) {
  suspended_ = suspended;
}

void DeviceModel::node_written(std::string_view path, std::string_view bytes) {
  hardware_node_written(state_.hardware, path, bytes);
}

void DeviceModel::settle() {
  const PowerParams& p = params_.power;
  state_.system_a = smoothed_a_ + uniform(-p.noise_a, p.noise_a);
  state_.charging = p.usb_connected && !suspended_;
  double ocv = p.empty_v + (p.full_v - p.empty_v) * state_.soc;

  if (!state_.charging) {
    state_.usb_a = 0;
    state_.usb_v = p.usb_connected ? p.usb_v : 0;
    state_.battery_a = state_.system_a;
    state_.battery_v = ocv - state_.battery_a * p.internal_ohm;
    return;
  }

  state_.usb_a = p.usb_limit_a;
  state_.usb_v = p.usb_v - state_.usb_a * p.cable_ohm;
  // The charger feeds the system first and the battery gets the rest. With i = system - P / v and
  // v = ocv - i * R, the terminal voltage solves v^2 - (ocv - system * R) v - P R = 0.
  double delivered_w = state_.usb_v * state_.usb_a * p.charger_efficiency;
  double b = ocv - state_.system_a * p.internal_ohm;
  state_.battery_v = (b + std::sqrt(b * b + 4 * delivered_w * p.internal_ohm)) / 2;
  state_.battery_a = state_.system_a - delivered_w / state_.battery_v;
}

}  // namespace emberline::sim
