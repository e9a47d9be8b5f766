#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/os/node.h"
#include "plugin.h"

namespace emberline {

// The part of a powercap entry's name that makes it a rail: what follows its last colon, when
// that is a non-empty hexadecimal number. Empty otherwise.
std::string rail_ending(std::string_view entry);

// Watts from one line of a power_uw node, or nothing when the line holds no number.
std::optional<float> microwatts_to_watts(const std::string& line);

// Per-rail power of Quillon devices, from the kernel's power capping class.
class QuillonPowerRailsPlugin : public Plugin {
 public:
  static constexpr std::size_t kMaxRails = 48;

  bool init() override;
  bool on_output() override;

 private:
  std::unordered_map<std::string, std::string> rail_names;
  std::vector<std::string> rail_dirs;
  std::array<os::NodeStream, kMaxRails> power_files;
  std::unordered_map<std::string,
                     std::unordered_map<std::string, std::shared_ptr<UnitValue<3, 'W'>>>>
      rail_values;
};

}  // namespace emberline
