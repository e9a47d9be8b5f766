#include "plugins/quillon_power_rails_plugin.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace emberline {

namespace {
const std::string kPowercap = "/sys/class/powercap";
const std::string kRailPrefix = "epm:";

std::string short_key(std::size_t position) {
  return "rail_" + std::to_string(position);
}
}  // namespace

std::string rail_ending(std::string_view entry) {
  std::size_t colon = entry.rfind(':');
  std::string_view ending = colon == std::string_view::npos ? entry : entry.substr(colon + 1);
  if (ending.empty() ||
      ending.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) {
    return {};
  }
  return std::string(ending);
}

std::optional<float> microwatts_to_watts(const std::string& line) {
  // A garbled node must cost one reading, not the run: no exception leaves this function.
  errno = 0;
  char* end = nullptr;
  float microwatts = std::strtof(line.c_str(), &end);
  if (end == line.c_str() || errno == ERANGE) return std::nullopt;
  return microwatts / 1e6f;
}

bool QuillonPowerRailsPlugin::init() {
  namespace fs = std::filesystem;
  std::error_code error;
  if (!fs::is_directory(fs::status(kPowercap, error))) {
    std::cerr << "Error: /sys/class/powercap directory is not accessible or doesn't exist."
              << std::endl;
    return false;
  }
  // The directory is listed without exceptions: an entry that cannot be read ends the listing,
  // not the run.
  for (fs::directory_iterator it(kPowercap, error), end; !error && it != end; it.increment(error)) {
    if (!it->is_directory(error)) continue;
    std::string ending = rail_ending(it->path().string());
    if (ending.empty()) continue;
    // Only so many rails have a file slot; the rest are left out rather than overrun it.
    if (rail_dirs.size() == kMaxRails) break;
    rail_dirs.push_back(kRailPrefix + ending);
  }

  for (const std::string& dir : rail_dirs) {
    os::NodeStream name(kPowercap + "/" + dir + "/name");
    if (!name) {
      std::cerr << "ERROR: Failed to find name file for rail directory '" << dir << "'."
                << std::endl;
      return false;
    }
    std::getline(name, rail_names[dir]);
  }

  for (std::size_t i = 0; i < rail_dirs.size(); ++i) {
    const std::string& dir = rail_dirs[i];
    power_files[i].open(kPowercap + "/" + dir + "/power_uw");
    if (!power_files[i]) {
      std::cerr << "ERROR: Failed to find power file for rail directory '" << dir << "'."
                << std::endl;
      return false;
    }
    // Each line makes the rail's value anew: a node without a line gives the rail no field, and
    // of a node with two lines the report keeps the value made first, while the outputs update
    // the one made last. A garbled line still makes its value, null until a reading comes.
    os::for_each_line(power_files[i], [&](const std::string& line) {
      auto value = std::make_shared<UnitValue<3, 'W'>>();
      rail_values[dir][short_key(i)] = value;
      if (auto watts = microwatts_to_watts(line)) value->set(*watts);
      add_value(rail_names[dir] + "_" + short_key(i), value, FieldOptions());
    });
  }
  return true;
}

bool QuillonPowerRailsPlugin::on_output() {
  for (std::size_t i = 0; i < rail_dirs.size(); ++i) {
    const std::string& dir = rail_dirs[i];
    auto rail = rail_values.find(dir);
    if (rail == rail_values.end()) continue;
    auto value = rail->second.find(short_key(i));
    if (value == rail->second.end()) continue;
    os::reread_lines(power_files[i], kPowercap + "/" + dir + "/power_uw",
                     [&](const std::string& line) {
                       if (auto watts = microwatts_to_watts(line)) value->second->set(*watts);
                     });
  }
  return true;
}

}  // namespace emberline
