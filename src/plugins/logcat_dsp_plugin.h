#pragma once

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "plugin.h"

namespace emberline {

// Load and frequency of the Hexagon DSP, from the tracking service's telemetry in the log.
class LogcatDspPlugin : public Plugin {
 public:
  LogcatDspPlugin();
  ~LogcatDspPlugin() override;

  bool init() override;
  bool on_output() override;
  bool on_emit_to_perfetto() override;

 protected:
  // Where the entries come from; tests stand a memory stream in for `logcat`.
  virtual FILE* open_log(const std::string& command) { return ::popen(command.c_str(), "r"); }
  virtual void close_log(FILE* stream) { ::pclose(stream); }

 private:
  FILE* pipe = nullptr;
  std::string command;
  std::time_t start_time;
  std::shared_ptr<PercentageValue<3>> util_max = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> util_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> scalar_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> hvx_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> hmx_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<PercentageValue<3>> udma_avg = std::make_shared<PercentageValue<3>>();
  std::shared_ptr<RoundedValue<2>> freq_avg = std::make_shared<RoundedValue<2>>();
};

}  // namespace emberline
