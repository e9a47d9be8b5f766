#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/os/node.h"
#include "plugin.h"

namespace emberline {

// Watts of one `average_value` line "<id>,<a>,<b>": both factors are in millionths.
float rail_watts(int first, int second);

// One line of `available_rails`, "<id>:<rail>"; none for a line of any other shape.
std::optional<std::pair<std::string, std::string>> parse_available_rail(const std::string& line);

// The id of one `average_value` line and its watts; none for a line of any other shape.
std::optional<std::pair<std::string, float>> parse_rail_average(const std::string& line);

// Per-rail power of Brantley engineering samples, from their two industrial I/O devices.
class PowerRailsPlugin : public Plugin {
 public:
  PowerRailsPlugin();

  bool init() override;
  bool on_output() override;

 private:
  std::unordered_map<std::string, std::string> rail_keys;
  std::array<std::string, 2> device_paths;
  std::array<os::NodeStream, 2> average_files;
  std::unordered_map<std::string,
                     std::unordered_map<std::string, std::shared_ptr<UnitValue<3, 'W'>>>>
      rail_values;
  std::unordered_map<std::string, std::unordered_map<std::string, std::string>> rail_names;
};

}  // namespace emberline
