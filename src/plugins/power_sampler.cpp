#include "plugins/power_sampler.h"

#include <iostream>

#include "platform/os/node.h"

namespace emberline {

namespace {
const char* const kBatteryDir = "/sys/class/power_supply/battery/";
const char* const kUsbDir = "/sys/class/power_supply/usb/";

FILE* open_or_complain(const std::string& path) {
  FILE* file = os::open_node_file(path);
  if (file == nullptr) std::cerr << "Failed to open file at '" << path << "'" << std::endl;
  return file;
}
}  // namespace

PowerSampler::PowerSampler(PowerPath path, bool usb_current_now) {
  switch (path) {
    case PowerPath::BATTERY:
      current_path = std::string(kBatteryDir) + "current_now";
      voltage_path = std::string(kBatteryDir) + "voltage_now";
      break;
    case PowerPath::USB:
      current_path = std::string(kUsbDir) + (usb_current_now ? "current_now" : "input_current_now");
      voltage_path = std::string(kUsbDir) + "voltage_now";
      break;
  }
}

PowerSampler::~PowerSampler() {
  if (current_file != nullptr) std::fclose(current_file);
  if (voltage_file != nullptr) std::fclose(voltage_file);
}

bool PowerSampler::init() {
  current_file = open_or_complain(current_path);
  if (current_file == nullptr) return false;
  std::setvbuf(current_file, current_buffer, _IOFBF, sizeof current_buffer);
  voltage_file = open_or_complain(voltage_path);
  if (voltage_file == nullptr) return false;
  std::setvbuf(voltage_file, voltage_buffer, _IOFBF, sizeof voltage_buffer);
  return true;
}

void PowerSampler::read_sample() {
  os::rewind_node(current_file);
  os::rewind_node(voltage_file);
  read_numbers(current_file, voltage_file);
}

void PowerSampler::read_numbers(FILE* current, FILE* voltage) {
  [[maybe_unused]] int current_read = std::fscanf(current, "%ld", &current_raw);
  [[maybe_unused]] int voltage_read = std::fscanf(voltage, "%ld", &voltage_raw);
  power_watts = power_from_raw(current_raw, voltage_raw);
}

}  // namespace emberline
