#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "plugin.h"

namespace emberline {

// The supply a power plugin measures.
enum class PowerPath : std::int32_t { BATTERY = 0, USB = 1 };

// Reads one supply's current and voltage from files held open for the whole run.
class PowerSampler : public Plugin {
 public:
  PowerSampler(PowerPath path, bool usb_current_now);
  ~PowerSampler() override;
  PowerSampler(const PowerSampler&) = delete;
  PowerSampler& operator=(const PowerSampler&) = delete;

  bool init() override;
  // Rewinds and re-reads both files; a failed read keeps the previous number.
  void read_sample();
  // The numbers of both streams from where they stand, and the power they make.
  void read_numbers(FILE* current, FILE* voltage);

  long current_raw = 0;
  long voltage_raw = 0;
  float power_watts = 0.0f;

 private:
  FILE* current_file = nullptr;
  FILE* voltage_file = nullptr;
  // Stream buffers of our own, so that the first read does not allocate one.
  char current_buffer[128] = {};
  char voltage_buffer[128] = {};
  std::string current_path;
  std::string voltage_path;
};

// Watts from microamps and microvolts, in single precision and in this order, so that reports
// match the arithmetic engineers reproduce by hand.
inline float power_from_raw(long current_raw, long voltage_raw) {
  return static_cast<float>(current_raw) / 1000000.0f * static_cast<float>(voltage_raw) /
         1000000.0f;
}

}  // namespace emberline
