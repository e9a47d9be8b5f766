#pragma once

#include <memory>
#include <vector>

#include "plugins/power_sampler.h"

namespace emberline {

// Instantaneous power, current and voltage of one supply.
class PowerPlugin : public Plugin {
 public:
  PowerPlugin(PowerPath path, bool usb_current_now);

  bool init() override;
  bool on_sample() override;
  bool on_output() override;
  bool on_emit_to_perfetto() override;

 protected:
  // One full reading; both tick kinds take one, so a shared cycle feeds two.
  virtual void take_reading();

  PowerSampler sampler;
  std::shared_ptr<UnitValue<3, 'W'>> raw = std::make_shared<UnitValue<3, 'W'>>();
  std::shared_ptr<UnitValue<3, 'A'>> current = std::make_shared<UnitValue<3, 'A'>>();
  std::shared_ptr<UnitValue<3, 'V'>> voltage = std::make_shared<UnitValue<3, 'V'>>();
  // Made and added to the section by the smoothing plugins; both feed it to one counter.
  std::shared_ptr<UnitValue<3, 'W'>> smooth;
};

// Rolling mean and population deviation over the last `window_size` readings.
class PowerWindowPlugin : public PowerPlugin {
 public:
  PowerWindowPlugin(PowerPath path, unsigned int window_size, bool usb_current_now);

 protected:
  void take_reading() override;

 private:
  bool update();

  unsigned int next_index = 0;
  unsigned int window_size;
  std::vector<float> samples;
  std::shared_ptr<UnitValue<3, 'W'>> smooth_stdev = std::make_shared<UnitValue<3, 'W'>>();
};

// Exponentially smoothed power.
class PowerExpSmoothPlugin : public PowerPlugin {
 public:
  PowerExpSmoothPlugin(PowerPath path, float alpha, bool usb_current_now);

 protected:
  void take_reading() override;

 private:
  bool first_sample = true;
  float alpha;
  float smoothed = 0.0f;
};

}  // namespace emberline
