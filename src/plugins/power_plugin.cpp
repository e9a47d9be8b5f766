#include "plugins/power_plugin.h"

#include <cmath>
#include <string>

#include "platform/trace/perfetto.h"

namespace emberline {

namespace {
enum Counter { kWatts, kCurrent, kVoltage, kSmoothed };

// Tracks are shared by name: both supplies feed the same four counters.
const perfetto::CounterTrack& track(Counter counter) {
  static const perfetto::CounterTrack tracks[] = {
      perfetto::CounterTrack("Watts"), perfetto::CounterTrack("Current"),
      perfetto::CounterTrack("Voltage"), perfetto::CounterTrack("Smoothed Power")};
  return tracks[counter];
}
}  // namespace

PowerPlugin::PowerPlugin(PowerPath path, bool usb_current_now) : sampler(path, usb_current_now) {
  add_value("raw", raw, FieldOptions("Instantaneous power (measured in Watts)"), false);
  add_value("current", current, FieldOptions("Instantaneous current (measured in Amps)"), false);
  add_value("voltage", voltage, FieldOptions("Instantaneous voltage (measured in Volts)"), false);
}

bool PowerPlugin::init() {
  return sampler.init();
}

void PowerPlugin::take_reading() {
  sampler.read_sample();
  raw->set(sampler.power_watts);
  current->set(static_cast<float>(sampler.current_raw) / 1000000.0f);
  voltage->set(static_cast<float>(sampler.voltage_raw) / 1000000.0f);
}

bool PowerPlugin::on_sample() {
  take_reading();
  return true;
}

bool PowerPlugin::on_output() {
  take_reading();
  return true;
}

bool PowerPlugin::on_emit_to_perfetto() {
  trace::emit_counter(track(kWatts), raw->value);
  trace::emit_counter(track(kCurrent), current->value);
  trace::emit_counter(track(kVoltage), voltage->value);
  if (smooth) trace::emit_counter(track(kSmoothed), smooth->value);
  return true;
}

PowerWindowPlugin::PowerWindowPlugin(PowerPath path, unsigned int window_size, bool usb_current_now)
    : PowerPlugin(path, usb_current_now), window_size(window_size) {
  // The ring still grows slot by slot, but never reallocates on the sample path.
  samples.reserve(window_size);
  smooth = std::make_shared<UnitValue<3, 'W'>>();
  add_value("smooth", smooth,
            FieldOptions("Power value smoothed using a rolling average window of " +
                         std::to_string(window_size) +
                         " samples. Window size can be set using '-w/--window'"),
            false);
  add_value("smooth_stdev", smooth_stdev,
            FieldOptions("Standard deviation of power readings within the current window"), false);
}

void PowerWindowPlugin::take_reading() {
  PowerPlugin::take_reading();
  update();
}

bool PowerWindowPlugin::update() {
  // The ring grows one slot at a time, up to the window, and is never reset.
  if (samples.size() <= next_index) {
    if (samples.size() == window_size) {
      next_index = 0;
    } else {
      samples.push_back(0.0f);
    }
  }
  samples[next_index] = sampler.power_watts;
  ++next_index;

  const float count = static_cast<float>(samples.size());
  float sum = 0.0f;
  for (float sample : samples) sum += sample;
  const float mean = sum / count;
  smooth->set(mean);

  float squares = 0.0f;
  for (float sample : samples) squares += (sample - mean) * (sample - mean);
  smooth_stdev->set(std::sqrt(squares / count));
  return true;
}

PowerExpSmoothPlugin::PowerExpSmoothPlugin(PowerPath path, float alpha, bool usb_current_now)
    : PowerPlugin(path, usb_current_now), alpha(alpha) {
  smooth = std::make_shared<UnitValue<3, 'W'>>();
  add_value("smooth", smooth,
            FieldOptions("Power value smoothed using exponential smoothing, with an alpha of " +
                         std::to_string(alpha) + ". Alpha can be set using '-e/--exp-smooth'"),
            false);
}

void PowerExpSmoothPlugin::take_reading() {
  PowerPlugin::take_reading();
  if (first_sample) {
    smoothed = sampler.power_watts;
    first_sample = false;
  } else {
    smoothed = alpha * sampler.power_watts + (1.0f - alpha) * smoothed;
  }
  smooth->set(smoothed);
}

}  // namespace emberline
