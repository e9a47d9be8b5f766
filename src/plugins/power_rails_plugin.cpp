#include "plugins/power_rails_plugin.h"

#include <cstdlib>
#include <iostream>

namespace emberline {

float rail_watts(int first, int second) {
  return (static_cast<float>(first) / 1e6f) * (static_cast<float>(second) / 1e6f);
}

std::optional<std::pair<std::string, std::string>> parse_available_rail(const std::string& line) {
  auto pieces = utils::split(line, ':');
  if (pieces.size() != 2) return std::nullopt;
  return std::pair{std::move(pieces[0]), std::move(pieces[1])};
}

std::optional<std::pair<std::string, float>> parse_rail_average(const std::string& line) {
  auto pieces = utils::split(line, ',');
  if (pieces.size() != 3) return std::nullopt;
  return std::pair{std::move(pieces[0]),
                   rail_watts(std::atoi(pieces[1].c_str()), std::atoi(pieces[2].c_str()))};
}

PowerRailsPlugin::PowerRailsPlugin()
    : rail_keys{{"VPH_S7S8S9A", "gold"}, {"VPH_S10A", "silver"}, {"VPH_S1S2S3A", "peripherals"},
                {"VPH_S3C", "soc_ram"},  {"VPH_S1S2C", "gpu"},   {"VPH_S7C", "ram_contr"},
                {"S1H", "dimm1"},        {"L3A", "dimm2"}},
      device_paths{"/sys/bus/iio/devices/iio:device3/", "/sys/bus/iio/devices/iio:device4/"} {
  for (const std::string& device : device_paths) {
    rail_values[device];
    rail_names[device];
  }
}

bool PowerRailsPlugin::init() {
  for (std::size_t d = 0; d < device_paths.size(); ++d) {
    const std::string& device = device_paths[d];
    os::NodeStream rails(device + "/available_rails");
    if (!rails) {
      std::cerr << "ERROR: Failed to find rail_file '" << device + "average_value"
                << "'." << std::endl
                << "MP (Mass Production) devices are un-supported. Is this 'Engineering Sample' "
                   "hardware?"
                << std::endl;
      return false;
    }
    os::for_each_line(rails, [&](const std::string& line) {
      const auto pieces = parse_available_rail(line);
      if (!pieces) return;
      const auto& [id, rail] = *pieces;
      rail_names[device][id] = rail;
      auto value = std::make_shared<UnitValue<3, 'W'>>();
      rail_values[device][id] = value;
      // A rail this table does not know still reports, under the name the hardware gives it.
      auto key = rail_keys.find(rail);
      add_value(key != rail_keys.end() ? key->second : rail, value, FieldOptions());
    });
    rails.close();
    average_files[d].open(device + "/average_value");
    if (!average_files[d]) return false;
  }
  return true;
}

bool PowerRailsPlugin::on_output() {
  for (std::size_t d = 0; d < device_paths.size(); ++d) {
    const std::string& device = device_paths[d];
    auto& values = rail_values[device];
    os::reread_lines(average_files[d], device + "/average_value", [&](const std::string& line) {
      const auto average = parse_rail_average(line);
      if (!average) return;
      // An id that available_rails did not list has no field to feed.
      auto value = values.find(average->first);
      if (value == values.end()) return;
      value->second->set(average->second);
    });
  }
  return true;
}

}  // namespace emberline
