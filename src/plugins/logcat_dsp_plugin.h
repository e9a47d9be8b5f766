#pragma once

#include <memory>

#include "plugin.h"
#include "plugins/logcat_window.h"

namespace emberline {

// Load and frequency of the Hexagon DSP, from the tracking service's telemetry in the log.
class LogcatDspPlugin : public logcat::WindowedPlugin {
 public:
  LogcatDspPlugin();

  bool on_output() override;
  bool on_emit_to_perfetto() override;

 private:
  std::shared_ptr<PercentageValue<3>> util_max = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> util_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> scalar_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> hvx_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> hmx_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> udma_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<RoundedValue<2>> freq_avg = std::make_shared<RoundedValue<2>>();
};

}  // namespace emberline
