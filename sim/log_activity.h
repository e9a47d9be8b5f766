#pragma once

// The log side of the device model, kept apart so that the model's header needs nothing else.

#include <cstdint>

namespace emberline::sim {

// What the headset's processes have to log. It draws from a generator of its own, so that adding
// log lines leaves the power workload of a seed unchanged.
struct LogActivity {
  std::uint64_t rng = 0x2545f4914f6cdd1dULL;
  std::uint64_t steps = 0;
  double frame_load_sum = 0;  // load summed over the runtime's current second
  double dsp_load_sum = 0;    // ... and over the tracking service's current report period

  // The numbers of the latest line of each kind.
  int fps = 72;
  int prd_ms = 40;
  int stale = 0;
  int tears = 0;
  double cfl_p50_ms = 0;
  double cfl_p95_ms = 0;
  int dsp_mhz = 499;
  double dsp_util[5] = {};  // percent: overall, scalar, HVX, HMX, UDMA

  // How many lines of each kind the headset has logged; the writer catches up to these.
  std::uint64_t ravelin_lines = 0;
  std::uint64_t telemetry_lines = 0;
  std::uint64_t chatter_lines = 0;
};

// The runtime reports its frame statistics once a second, the tracking service the DSP's load
// five times a second.
inline constexpr std::uint64_t kRavelinPeriodSteps = 100;
inline constexpr std::uint64_t kTelemetryPeriodSteps = 20;
inline constexpr std::uint64_t kChatterPeriodSteps = 50;

struct DeviceState;
struct ModelParams;

// One 10 ms step at the workload's present load.
void step_log(DeviceState& state, const ModelParams& params, double seconds);

}  // namespace emberline::sim
